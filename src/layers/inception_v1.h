/// @file
#pragma once

#include "layers/block.h"
#include "layers/cba.h"
#include "layers/concat.h"
#include "layers/pool.h"

/// Inception block (Szegedy et al., "Going deeper with convolutions", 2015): four branches over one
/// input, joined along the channels, every convolution followed by its ReLU.
///
/// (N, C, H, W) -> (N, conv1x1 + conv3x3 + conv5x5 + poolProjection, H, W), the widths of the row.
/// Takes six blocks of the pool beside its input.
class InceptionV1 : public facezoo::Block<CBA, 6> {
 public:
  using Block::Block;

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override {
    auto& [conv1x1, reduce3x3, conv3x3, reduce5x5, conv5x5, poolProjection] = layers_;
    MaxPooling maxPool;
    Concat concat;

    const Tensor a = conv1x1(in);
    Tensor x = reduce3x3(in);
    const Tensor b = conv3x3(x);
    x = reduce5x5(in);
    const Tensor c = conv5x5(x);
    x = maxPool(in, 3, 1, 1);
    const Tensor d = poolProjection(x);
    return concat({a, b, c, d});
  }
};
