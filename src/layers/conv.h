/// @file
#pragma once

#include "layers/convolution.h"

/// Convolution without activation: y[n, o, i, j] = b[o] + sum over c, u, v of
/// W[o, c, u, v] · x[n, c, i·s - p + u, j·s - p + v], where x is zero outside the input and b is
/// zero for a layer without bias.
class Convolution2D : public facezoo::Convolution {
 public:
  using Convolution::Convolution;

  /// @throws cudnnStatus_t, also for an input of other than C channels; TensorError 0
  Tensor operator()(const Tensor& in) override {
    configure(in.base->shape);
    Tensor out(outputShape_);
    float* y = out.base->data;
    CheckCudnn(cudnnConvolutionForward(handle_, &facezoo::kOne, input_, in.base->data, filterShape_,
                                       filter_.get(), convolution_, algorithm_, workspace_,
                                       workspaceSize, &facezoo::kZero, output_, y));
    if (bias_.get() != nullptr) {
      CheckCudnn(cudnnAddTensor(handle_, &facezoo::kOne, biasShape_, bias_.get(), &facezoo::kOne,
                                output_, y));
    }
    return out;
  }
};
