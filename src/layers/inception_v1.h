/// @file
#pragma once

#include "layer_factory.h"
#include "layers/concat.h"
#include "layers/pool.h"

/// Inception block (Szegedy et al., "Going deeper with convolutions", 2015): four branches over one
/// input, joined along the channels, every convolution followed by its ReLU.
///
/// (N, C, H, W) -> (N, c1 + c3 + c5 + cp, H, W). Takes six blocks of the pool beside its input.
class InceptionV1 : public facezoo::Block<6> {
 public:
  /// @param prefix of the block's weight names, ending in a slash
  /// @param c1 channels of the 1 × 1 branch
  /// @param r3,c3 of the 3 × 3 branch: reduced to, and out
  /// @param r5,c5 of the 5 × 5 branch
  /// @param cp of the pooling branch
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  InceptionV1(std::string prefix, msgpack::v1::object& weights, int inChannels, int c1, int r3,
              int c3, int r5, int c5, int cp)
      : Block(facezoo::inceptionV1Layers(inChannels, c1, r3, c3, r5, c5, cp), prefix, weights) {}

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override {
    auto& [conv1x1, reduce3x3, conv3x3, reduce5x5, conv5x5, project] = layers_;
    MaxPooling maxPool;
    Concat concat;

    const Tensor a = conv1x1(in);
    Tensor x = reduce3x3(in);
    const Tensor b = conv3x3(x);
    x = reduce5x5(in);
    const Tensor c = conv5x5(x);
    x = maxPool(in, 3, 1, 1);
    const Tensor d = project(x);
    return concat({a, b, c, d});
  }
};
