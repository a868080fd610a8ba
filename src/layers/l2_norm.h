/// @file
#pragma once

#include "facezoo/layer.h"
#include "kernels/l2_norm.h"

/// The Euclidean norm of all values of each image. It only measures: nothing is normalized.
///
/// (N, C, H, W) -> (N, 1, 1, 1).
class L2Norm : public LayerBase {
 public:
  /// @throws TensorError 0; the launch is not checked
  Tensor operator()(const Tensor& in) override {
    const int4 shape = in.base->shape;
    Tensor out({shape.x, 1, 1, 1});
    facezoo::l2Norms(shape.x, shape.y * shape.z * shape.w, in.base->data, out.base->data);
    return out;
  }
};
