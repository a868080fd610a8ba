/// @file
#pragma once

#include "layer.h"
#include "layers/handles.h"

#include <string>

/// Fully connected layer: y[b][o] = sum over i of W[o][i] · x[b][i], plus bias[o] if it has one.
///
/// (N, C, H, W) with C·H·W = I -> (N, O, 1, 1). The input's shape is not checked against I.
class InnerProduct : public LayerBase {
 public:
  /// @param name full layer name; reads name + "-0" (weights [o][i]) and, with a bias, "-1"
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  InnerProduct(std::string name, msgpack::v1::object& weights, int inputSize, int outputSize,
               bool noBias)
      : inputSize_(inputSize), outputSize_(outputSize) {
    biasShape_.create();
    weights_.allocateZeroed(static_cast<std::size_t>(inputSize) * outputSize);
    facezoo::describe(biasShape_, {1, outputSize, 1, 1});
    readWeight(weights, name + "-0", inputSize * outputSize * 4, weights_.get());
    if (noBias) return;
    bias_.allocateZeroed(outputSize);
    readWeight(weights, name + "-1", outputSize * 4, bias_.get());
  }

  /// @throws cublasStatus_t, cudnnStatus_t, TensorError 0
  Tensor operator()(const Tensor& in) override {
    const float one = 1.0F;
    const float zero = 0.0F;
    const int batch = in.base->shape.x;
    Tensor out({batch, outputSize_, 1, 1});
    const float* x = in.base->data;
    float* y = out.base->data;
    // In column-major terms the weights are an I × O matrix and the batch is I × N.
    if (batch == 1) {
      CheckCublas(cublasSgemv_v2(blasHandle, CUBLAS_OP_T, inputSize_, outputSize_, &one,
                                 weights_.get(), inputSize_, x, 1, &zero, y, 1));
    } else {
      CheckCublas(cublasSgemm_v2(blasHandle, CUBLAS_OP_T, CUBLAS_OP_N, outputSize_, batch,
                                 inputSize_, &one, weights_.get(), inputSize_, x, inputSize_, &zero,
                                 y, outputSize_));
    }
    for (int b = 0; bias_.get() != nullptr && b < batch; ++b) {
      CheckCudnn(cudnnAddTensor(handle_, &one, biasShape_, bias_.get(), &one, biasShape_,
                                y + static_cast<std::size_t>(b) * outputSize_));
    }
    return out;
  }

 private:
  // Destroyed from the last to the first.
  facezoo::TensorDescriptor biasShape_;
  facezoo::DeviceBuffer bias_;
  facezoo::DeviceBuffer weights_;
  int inputSize_;
  int outputSize_;
};
