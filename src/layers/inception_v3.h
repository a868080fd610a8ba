/// @file
#pragma once

#include "layers/block.h"
#include "layers/concat.h"
#include "layers/normalized_convolution.h"
#include "layers/pool.h"

/// Inception block with batch normalization after every convolution, its 5 × 5 convolution replaced
/// by two of 3 × 3 (Ioffe and Szegedy, "Batch normalization", 2015): four branches over one input,
/// joined along the channels.
///
/// (N, C, H, W) -> (N, conv1x1 + conv3x3 + conv5x5 + poolProjection, H, W), the widths of the row.
/// Takes six blocks of the pool beside its input.
class InceptionV3_1 : public facezoo::Block<NormalizedConvolution, 7> {
 public:
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  InceptionV3_1(const facezoo::LayerRow& row, const std::string& prefix,
                msgpack::v1::object& weights)
      : Block(row, prefix, weights), maxPool_(row.maxPool) {}

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override {
    auto& [conv1x1, reduce3x3, conv3x3, reduceDouble, double3x3a, double3x3b, poolProjection] =
        layers_;

    const Tensor a = conv1x1(in);
    Tensor x = reduce3x3(in);
    const Tensor b = conv3x3(x);
    x = reduceDouble(in);
    x = double3x3a(x);
    const Tensor c = double3x3b(x);
    x = maxPool_ ? MaxPooling()(in, 3, 1, 1) : AveragePooling()(in, 3, 1, 1);
    const Tensor d = poolProjection(x);
    return Concat()({a, b, c, d});
  }

 private:
  bool maxPool_;
};

/// The block of the same paper that halves height and width: two branches that end in a convolution
/// of stride 2, and the pooled input itself.
///
/// (N, C, H, W) with even H and W -> (N, conv3x3 + conv5x5 + C, H / 2, W / 2), the widths of the
/// row.
class InceptionV3_2 : public facezoo::Block<NormalizedConvolution, 5> {
 public:
  using Block::Block;

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override {
    auto& [reduce3x3, conv3x3, reduceDouble, double3x3a, double3x3b] = layers_;

    Tensor x = reduce3x3(in);
    const Tensor a = conv3x3(x);
    x = reduceDouble(in);
    x = double3x3a(x);
    const Tensor b = double3x3b(x);
    const Tensor c = MaxPooling()(in, 3, 2, 0);
    return Concat()({a, b, c});
  }
};
