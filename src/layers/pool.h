/// @file
#pragma once

#include "facezoo/layer.h"
#include "layers/handles.h"

namespace facezoo {

/// Pooling over square windows with equal stride and padding in both directions. The output size is
/// rounded up, (H + 2p - w + s - 1) / s + 1 in truncating division, so that a window that only
/// partly covers the input still gives an output.
///
/// (N, C, H, W) -> (N, C, Ho, Wo).
template <cudnnPoolingMode_t Mode>
class Pooling : public LayerBase {
 public:
  using LayerBase::operator();

  /// @param window,stride,pad elements in both directions
  /// @throws cudnnStatus_t, also for parameters that cuDNN refuses; TensorError 0
  Tensor operator()(const Tensor& in, int window, int stride, int pad) {
    struct Shared {
      TensorDescriptor input;
      TensorDescriptor output;
      PoolingDescriptor pooling;
    };
    auto& shared = classWide<Shared>();
    shared.input.create();
    shared.output.create();
    shared.pooling.create();
    CheckCudnn(cudnnSetPooling2dDescriptor(shared.pooling, Mode, CUDNN_PROPAGATE_NAN, window,
                                           window, pad, pad, stride, stride));
    const int4 shape = in.base->shape;
    describe(shared.input, shape);
    const auto pooled = [&](int size) {
      return (size + 2 * pad - window + stride - 1) / stride + 1;
    };
    const int4 outputShape = {shape.x, shape.y, pooled(shape.z), pooled(shape.w)};
    describe(shared.output, outputShape);
    Tensor out(outputShape);
    CheckCudnn(cudnnPoolingForward(handle_, shared.pooling, &kOne, shared.input, in.base->data,
                                   &kZero, shared.output, out.base->data));
    return out;
  }
};

}  // namespace facezoo

/// The maximum of each window; padding never wins, a NaN in the window gives NaN.
using MaxPooling = facezoo::Pooling<CUDNN_POOLING_MAX>;

/// The average of each window; padding counts as zeros and in the divisor.
using AveragePooling = facezoo::Pooling<CUDNN_POOLING_AVERAGE_COUNT_INCLUDE_PADDING>;
