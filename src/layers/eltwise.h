/// @file
#pragma once

#include "facezoo/layer.h"
#include "kernels/eltwise.h"

/// Max feature map (Wu et al., "A light CNN for deep face representation with noisy labels", 2018):
/// output channel c is the larger of the input's channels c and c + C / 2. A NaN in the first half
/// gives NaN, one in the second half gives the other value.
///
/// (N, C, H, W) -> (N, C / 2, H, W).
class SliceEltwiseMax : public LayerBase {
 public:
  /// @throws TensorError 0, also for an odd number of channels; the launch is not checked
  Tensor operator()(const Tensor& in) override {
    const int4 shape = in.base->shape;
    if (shape.y % 2 != 0) throw NO_BLOCK;
    Tensor out({shape.x, shape.y / 2, shape.z, shape.w});
    const int plane = shape.y / 2 * shape.z * shape.w;
    float* x = in.base->data;
    facezoo::maxRows(x, x + plane, 2 * plane, plane, shape.x, out.base->data, plane);
    return out;
  }
};

/// The sum of two tensors of equal shape, element by element.
class EltwiseSum : public LayerBase {
 public:
  using LayerBase::operator();

  /// @param b as many elements as `a`; not checked
  /// @throws TensorError 0; the launch is not checked
  Tensor operator()(const Tensor& a, const Tensor& b) {
    const int4 shape = a.base->shape;
    Tensor out(shape);
    const int image = shape.y * shape.z * shape.w;
    facezoo::sumRows(a.base->data, b.base->data, image, image, shape.x, out.base->data, image);
    return out;
  }
};
