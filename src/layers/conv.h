/// @file
#pragma once

#include "layers/convolution.h"

/// Convolution without activation: y[n, o, i, j] = b[o] + sum over c, u, v of
/// W[o, c, u, v] · x[n, c, i·s - p + u, j·s - p + v], where x is zero outside the input and b is
/// zero for a layer without bias.
///
/// (N, C, H, W) -> (N, K, floor((H + 2p - k) / s) + 1, floor((W + 2p - k) / s) + 1).
class Convolution2D : public facezoo::Convolution {
 public:
  /// @param name full layer name; reads name + "-0" (filter, K·C·k·k floats) and, with a bias, "-1"
  /// @param padded p = k / 2 if set, else 0
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  Convolution2D(std::string name, msgpack::v1::object& weights, int inChannels, int outChannels,
                int kernel, int stride, bool padded, bool noBias)
      : Convolution(name, weights, inChannels, outChannels, kernel, stride, padded, !noBias) {}

  /// @throws cudnnStatus_t, also for an input of other than C channels; TensorError 0
  Tensor operator()(const Tensor& in) override {
    const float one = 1.0F;
    const float zero = 0.0F;
    configure(in.base->shape);
    Tensor out(outputShape_);
    float* y = out.base->data;
    CheckCudnn(cudnnConvolutionForward(handle_, &one, input_, in.base->data, filterShape_,
                                       filter_.get(), convolution_, algorithm_, workspace_,
                                       workspaceSize, &zero, output_, y));
    if (bias_.get() != nullptr) {
      CheckCudnn(cudnnAddTensor(handle_, &one, biasShape_, bias_.get(), &one, output_, y));
    }
    return out;
  }
};
