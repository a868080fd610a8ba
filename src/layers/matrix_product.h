/// @file
/// What the fully connected layers share: a matrix, its product with a batch, and a vector that is
/// added to every image's input or output.
#pragma once

#include "buffer_pool.h"
#include "facezoo/layer.h"
#include "layer_table.h"
#include "layers/handles.h"

#include <string>

namespace facezoo {

/// Base of the fully connected layers. (N, C, H, W) with C·H·W = I -> (N, O, 1, 1); the input's
/// shape is not checked against I.
class MatrixProduct : public LayerBase {
 protected:
  /// Reads name + "-0", matrix [o][i], and, if there is a vector, name + "-1".
  /// @param vectorSize values of the vector
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  MatrixProduct(const LayerRow& row, const std::string& prefix, msgpack::v1::object& weights,
                int vectorSize, bool hasVector)
      : inputSize_(row.in), outputSize_(row.out), vectorSize_(vectorSize) {
    const std::string name = prefix + row.name;
    vectorShape_.create();
    matrix_.allocateZeroed(static_cast<std::size_t>(inputSize_) * outputSize_);
    describe(vectorShape_, {1, vectorSize, 1, 1});
    readWeight(weights, name + "-0", inputSize_ * outputSize_ * 4, matrix_.get());
    if (!hasVector) return;
    vector_.allocateZeroed(vectorSize);
    readWeight(weights, name + "-1", vectorSize * 4, vector_.get());
  }

  /// y = matrix · x for each of `batch` images.
  /// @throws cublasStatus_t
  void multiply(int batch, const float* x, float* y, const char* file = __builtin_FILE(),
                int line = __builtin_LINE()) const {
    // In column-major terms the matrix is I × O and the batch is I × N.
    if (batch == 1) {
      CheckCublas(cublasSgemv_v2(blasHandle, CUBLAS_OP_T, inputSize_, outputSize_, &kOne,
                                 matrix_.get(), inputSize_, x, 1, &kZero, y, 1),
                  file, line);
    } else {
      CheckCublas(
          cublasSgemm_v2(blasHandle, CUBLAS_OP_T, CUBLAS_OP_N, outputSize_, batch, inputSize_,
                         &kOne, matrix_.get(), inputSize_, x, inputSize_, &kZero, y, outputSize_),
          file, line);
    }
  }

  /// data += factor · vector for each of `batch` images; nothing if there is no vector.
  /// @throws cudnnStatus_t
  void addVector(float factor, int batch, float* data, const char* file = __builtin_FILE(),
                 int line = __builtin_LINE()) const {
    for (int b = 0; vector_.get() != nullptr && b < batch; ++b, data += vectorSize_) {
      CheckCudnn(
          cudnnAddTensor(handle_, &factor, vectorShape_, vector_.get(), &kOne, vectorShape_, data),
          file, line);
    }
  }

  Tensor outputFor(const Tensor& in) const { return Tensor({in.base->shape.x, outputSize_, 1, 1}); }

 private:
  // Members are destroyed from the last to the first.
  TensorDescriptor vectorShape_;
  DeviceBuffer vector_;
  DeviceBuffer matrix_;
  int inputSize_;
  int outputSize_;
  int vectorSize_;
};

}  // namespace facezoo
