/// @file
#pragma once

#include "layers/convolution.h"

#include <string>

/// Convolution, bias and rectified linear unit in one cuDNN call: y[n, o, i, j] = max(0, z), where
/// z = b[o] + sum over c, u, v of W[o, c, u, v] · x[n, c, i·s - p + u, j·s - p + v], and x is zero
/// outside the input.
///
/// (N, C, H, W) -> (N, K, floor((H + 2p - k) / s) + 1, floor((W + 2p - k) / s) + 1).
class CBA : public facezoo::Convolution {
 public:
  /// @param name full layer name; reads name + "-0" (filter, K·C·k·k floats) and "-1" (bias, K)
  /// @param padded p = k / 2 if set, else 0
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  CBA(std::string name, msgpack::v1::object& weights, int inChannels, int outChannels, int kernel,
      int stride, bool padded)
      : Convolution(name, weights, inChannels, outChannels, kernel, stride, padded, true) {}

  /// @throws cudnnStatus_t, also for an input of other than C channels; TensorError 0
  Tensor operator()(const Tensor& in) override {
    const float one = 1.0F;
    const float zero = 0.0F;
    facezoo::ActivationDescriptor relu;
    relu.create();
    CheckCudnn(
        cudnnSetActivationDescriptor(relu, CUDNN_ACTIVATION_RELU, CUDNN_NOT_PROPAGATE_NAN, 0.0));
    configure(in.base->shape);
    Tensor out(outputShape_);
    float* y = out.base->data;
    CheckCudnn(cudnnConvolutionBiasActivationForward(
        handle_, &one, input_, in.base->data, filterShape_, filter_.get(), convolution_, algorithm_,
        workspace_, workspaceSize, &zero, output_, y, biasShape_, bias_.get(), relu, output_, y));
    relu.destroy();
    return out;
  }
};
