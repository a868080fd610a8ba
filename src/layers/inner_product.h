/// @file
#pragma once

#include "layers/matrix_product.h"

/// Fully connected layer: y[b][o] = sum over i of W[o][i] · x[b][i], plus bias[o] if it has one.
/// (N, C, H, W) with C·H·W = I -> (N, O, 1, 1).
class InnerProduct : public facezoo::MatrixProduct {
 public:
  /// Reads name + "-0" (weights [o][i]) and, with a bias, name + "-1".
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  InnerProduct(const facezoo::LayerRow& row, const std::string& prefix,
               msgpack::v1::object& weights)
      : MatrixProduct(row, prefix, weights, row.out, row.hasBias) {}

  /// @throws cublasStatus_t, cudnnStatus_t, TensorError 0
  Tensor operator()(const Tensor& in) override {
    const int batch = in.base->shape.x;
    Tensor out = outputFor(in);
    multiply(batch, in.base->data, out.base->data);
    addVector(1.0F, batch, out.base->data);
    return out;
  }
};
