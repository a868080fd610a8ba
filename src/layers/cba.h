/// @file
#pragma once

#include "layers/convolution.h"

/// Convolution, bias and rectified linear unit in one cuDNN call: y[n, o, i, j] = max(0, z), where
/// z = b[o] + sum over c, u, v of W[o, c, u, v] · x[n, c, i·s - p + u, j·s - p + v], and x is zero
/// outside the input.
class CBA : public facezoo::Convolution {
 public:
  using Convolution::Convolution;  // of a row with bias

  /// @throws cudnnStatus_t, also for an input of other than C channels; TensorError 0
  Tensor operator()(const Tensor& in) override {
    facezoo::ActivationDescriptor relu;
    relu.create();
    CheckCudnn(
        cudnnSetActivationDescriptor(relu, CUDNN_ACTIVATION_RELU, CUDNN_NOT_PROPAGATE_NAN, 0.0));
    configure(in.base->shape);
    Tensor out(outputShape_);
    float* y = out.base->data;
    CheckCudnn(cudnnConvolutionBiasActivationForward(
        handle_, &facezoo::kOne, input_, in.base->data, filterShape_, filter_.get(), convolution_,
        algorithm_, workspace_, workspaceSize, &facezoo::kZero, output_, y, biasShape_, bias_.get(),
        relu, output_, y));
    relu.destroy();
    return out;
  }
};
