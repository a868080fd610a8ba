/// @file
#pragma once

#include "facezoo/layer.h"

#include <vector>

/// Joins tensors (N, Ci, H, W) along the channels, in list order: -> (N, sum of Ci, H, W).
class Concat : public LayerBase {
 public:
  using LayerBase::operator();

  /// @param inputs at least one tensor, all of the first one's N, H and W
  /// @throws TensorError 0; the copies are not checked
  Tensor operator()(const std::vector<Tensor>& inputs) {
    int4 shape = inputs.front().base->shape;
    for (std::size_t i = 1; i < inputs.size(); ++i) shape.y += inputs[i].base->shape.y;
    Tensor out(shape);
    const std::size_t pitch = sizeof(float) * shape.y * shape.z * shape.w;
    float* destination = out.base->data;
    for (const Tensor& input : inputs) {
      const int4 part = input.base->shape;
      const std::size_t floats = static_cast<std::size_t>(part.y) * part.z * part.w;
      const std::size_t row = floats * sizeof(float);
      // One row is one image's block of this input.
      cudaMemcpy2D(destination, pitch, input.base->data, row, row,
                   static_cast<std::size_t>(shape.x), cudaMemcpyDeviceToDevice);
      destination += floats;
    }
    return out;
  }
};
