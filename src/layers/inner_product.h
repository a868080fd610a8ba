/// @file
#pragma once

#include "layers/matrix_product.h"

/// Fully connected layer: y[b][o] = sum over i of W[o][i] · x[b][i], plus bias[o] if it has one.
/// (N, C, H, W) with C·H·W = I -> (N, O, 1, 1).
class InnerProduct : public facezoo::MatrixProduct {
 public:
  /// @param name full layer name; reads name + "-0" (weights [o][i]) and, with a bias, "-1"
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  InnerProduct(std::string name, msgpack::v1::object& weights, int inputSize, int outputSize,
               bool noBias)
      : MatrixProduct(name, weights, inputSize, outputSize, outputSize, !noBias) {}

  /// @throws cublasStatus_t, cudnnStatus_t, TensorError 0
  Tensor operator()(const Tensor& in) override {
    const int batch = in.base->shape.x;
    Tensor out = outputFor(in);
    multiply(batch, in.base->data, out.base->data);
    addVector(1.0F, batch, out.base->data);
    return out;
  }
};
