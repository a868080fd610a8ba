/// @file
#pragma once

#include "layers/matrix_product.h"

/// Projection of centred descriptors, the form of a principal-component projection (Pearson, 1901):
/// y[b][o] = sum over i of W[o][i] · (x[b][i] - mean[i]), for 2048 values an image.
/// (N, C, H, W) with C·H·W = 2048 -> (N, O, 1, 1).
///
/// The mean is subtracted in place: the input has changed after a call. Whoever needs the
/// descriptor itself must use it before.
class Projection : public facezoo::MatrixProduct {
 public:
  static constexpr int inputSize = 2048;

  /// @param name full layer name; reads name + "-0" (matrix [o][i]) and "-1" (mean, 2048)
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  Projection(std::string name, msgpack::v1::object& weights, int outputSize)
      : MatrixProduct(name, weights, inputSize, outputSize, inputSize, true) {}

  /// @throws cublasStatus_t, cudnnStatus_t, TensorError 0
  Tensor operator()(const Tensor& in) override {
    const int batch = in.base->shape.x;
    Tensor out = outputFor(in);
    addVector(-1.0F, batch, in.base->data);
    multiply(batch, in.base->data, out.base->data);
    return out;
  }
};
