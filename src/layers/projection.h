/// @file
#pragma once

#include "layers/matrix_product.h"

/// Projection of centred descriptors, the form of a principal-component projection (Pearson, 1901):
/// y[b][o] = sum over i of W[o][i] · (x[b][i] - mean[i]). (N, C, H, W) with C·H·W = I ->
/// (N, O, 1, 1).
///
/// The mean is subtracted in place, which changes the input. Whoever needs the descriptor itself
/// must use it before the call.
class Projection : public facezoo::MatrixProduct {
 public:
  /// Reads name + "-0" (matrix [o][i]) and name + "-1" (mean [i]).
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  Projection(const facezoo::LayerRow& row, const std::string& prefix, msgpack::v1::object& weights)
      : MatrixProduct(row, prefix, weights, row.in, true) {}

  /// @throws cublasStatus_t, cudnnStatus_t, TensorError 0
  Tensor operator()(const Tensor& in) override {
    const int batch = in.base->shape.x;
    Tensor out = outputFor(in);
    addVector(-1.0F, batch, in.base->data);
    multiply(batch, in.base->data, out.base->data);
    return out;
  }
};
