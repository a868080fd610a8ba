/// @file
#pragma once

#include "layers/block.h"
#include "layers/conv.h"
#include "layers/eltwise.h"

/// Residual block of max feature maps (the paper of `SliceEltwiseMax`):
/// x + MFM(conv2(MFM(conv1(x)))), with 3 × 3 convolutions to twice the channels. The shape stays.
/// Takes two blocks of the pool beside its input.
class InceptionMFM : public facezoo::Block<Convolution2D, 2> {
 public:
  using Block::Block;

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override {
    auto& [conv1, conv2] = layers_;
    SliceEltwiseMax maxFeatureMap;
    EltwiseSum sum;

    Tensor y = conv1(in);
    y = maxFeatureMap(y);
    y = conv2(y);
    y = maxFeatureMap(y);
    y = sum(in, y);
    return y;
  }
};
