/// @file
#pragma once

#include "layer_factory.h"
#include "layers/eltwise.h"

/// Residual block of max feature maps (the paper of `SliceEltwiseMax`):
/// x + MFM(conv2(MFM(conv1(x)))), with 3 × 3 convolutions to twice the channels. The shape stays.
/// Takes two blocks of the pool beside its input.
class InceptionMFM : public facezoo::Block<2> {
 public:
  /// @param name full block name; reads name + "_conv1" and "_conv2", each with "-0" and "-1"
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  InceptionMFM(std::string name, msgpack::v1::object& weights, int channels)
      : Block(facezoo::inceptionMFMLayers(channels), name, weights) {}

  /// @param in (N, C, H, W) with C the channels given
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
