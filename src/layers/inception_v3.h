/// @file
#pragma once

#include "layer_factory.h"
#include "layers/concat.h"
#include "layers/pool.h"
#include "layers/relu.h"

namespace facezoo {

/// One unit of the batch-normalized network: `unit` is a weighted layer and its normalization.
/// @throws what the layers throw
inline Tensor normalizedRelu(Layer* unit, const Tensor& in) {
  Tensor x = unit[0](in);
  x = unit[1](x);
  return Relu()(x);
}

}  // namespace facezoo

/// Inception block with batch normalization after every convolution, its 5 × 5 convolution replaced
/// by two of 3 × 3 (Ioffe and Szegedy, "Batch normalization", 2015): four branches over one input,
/// joined along the channels.
///
/// (N, C, H, W) -> (N, c1x1 + c3 + cd3 + cpool, H, W). Takes six blocks of the pool beside its
/// input.
class InceptionV3_1 : public facezoo::Block<14> {
 public:
  /// @param prefix of the block's weight names, ending in a slash
  /// @param c1x1 channels of the 1 × 1 branch
  /// @param c3r,c3 of the 3 × 3 branch: reduced to, and out
  /// @param cd3r,cd3 of the branch with two 3 × 3 convolutions
  /// @param cpool of the pooling branch
  /// @param maxPool that branch takes the maximum; else the average
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  InceptionV3_1(std::string prefix, msgpack::v1::object& weights, int inChannels, int c1x1, int c3r,
                int c3, int cd3r, int cd3, int cpool, bool maxPool)
      : Block(facezoo::inceptionV3_1Layers(inChannels, c1x1, c3r, c3, cd3r, cd3, cpool), prefix,
              weights),
        maxPool_(maxPool) {}

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override {
    using facezoo::normalizedRelu;
    Layer *conv1x1 = layers_, *reduce3x3 = layers_ + 2, *conv3x3 = layers_ + 4;
    Layer *reduceDouble = layers_ + 6, *double3x3a = layers_ + 8, *double3x3b = layers_ + 10;
    Layer* project = layers_ + 12;

    const Tensor a = normalizedRelu(conv1x1, in);
    Tensor x = normalizedRelu(reduce3x3, in);
    const Tensor b = normalizedRelu(conv3x3, x);
    x = normalizedRelu(reduceDouble, in);
    x = normalizedRelu(double3x3a, x);
    const Tensor c = normalizedRelu(double3x3b, x);
    x = maxPool_ ? MaxPooling()(in, 3, 1, 1) : AveragePooling()(in, 3, 1, 1);
    const Tensor d = normalizedRelu(project, x);
    return Concat()({a, b, c, d});
  }

 private:
  bool maxPool_;
};

/// The block of the same paper that halves the map: two branches of strided convolutions, and the
/// pooled input itself.
///
/// (N, C, H, W) with even H and W -> (N, c3 + cd3 + C, H / 2, W / 2).
class InceptionV3_2 : public facezoo::Block<10> {
 public:
  /// @param prefix of the block's weight names, ending in a slash
  /// @param c3 channels of the 3 × 3 branch, which is reduced to 128 before
  /// @param cd3r,cd3 of the branch with two 3 × 3 convolutions: reduced to, and out
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  InceptionV3_2(std::string prefix, msgpack::v1::object& weights, int inChannels, int c3, int cd3r,
                int cd3)
      : Block(facezoo::inceptionV3_2Layers(inChannels, c3, cd3r, cd3), prefix, weights) {}

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override {
    using facezoo::normalizedRelu;
    Layer *reduce3x3 = layers_, *conv3x3 = layers_ + 2, *reduceDouble = layers_ + 4;
    Layer *double3x3a = layers_ + 6, *double3x3b = layers_ + 8;

    Tensor x = normalizedRelu(reduce3x3, in);
    const Tensor a = normalizedRelu(conv3x3, x);
    x = normalizedRelu(reduceDouble, in);
    x = normalizedRelu(double3x3a, x);
    const Tensor b = normalizedRelu(double3x3b, x);
    const Tensor c = MaxPooling()(in, 3, 2, 0);
    return Concat()({a, b, c});
  }
};
