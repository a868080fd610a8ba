/// @file
/// The matrix products of cuBLAS.
#include <cublas_v2.h>
#include <dnnl.h>

#include <vector>

#include "compute.h"
#include "instrumentation.h"

using namespace host_device::detail;

namespace {

/// The order of the additions is part of the code, so that it does not depend on the machine.
HOST_DEVICE_CLONES float dot(const float* a, const float* b, std::size_t count) {
  constexpr std::size_t lanes = 32;
  float partial[lanes] = {};
  std::size_t i = 0;
  for (; i + lanes <= count; i += lanes) {
    for (std::size_t lane = 0; lane < lanes; ++lane) partial[lane] += a[i + lane] * b[i + lane];
  }
  float sum = 0.0f;
  for (; i < count; ++i) sum += a[i] * b[i];
  for (const float value : partial) sum += value;
  return sum;
}

/// Dot products of `count` rows of `a`, each `size` long, with x. Few rows are cut into pieces, so
/// that there is something to do for every thread.
void dotRows(const float* a, std::size_t stride, std::size_t size, int count, const float* x,
             std::vector<float>& sums) {
  constexpr std::size_t piece = 2048;
  const std::size_t pieces = count < 64 ? (size + piece - 1) / piece : 1;
  const std::size_t pieceSize = pieces > 1 ? piece : size;
  sums.resize(count * pieces);
#pragma omp parallel for schedule(static) collapse(2) if (count * size > piece)
  for (int row = 0; row < count; ++row) {
    for (std::size_t p = 0; p < pieces; ++p) {
      const std::size_t begin = p * pieceSize;
      sums[row * pieces + p] =
          dot(a + row * stride + begin, x + begin, std::min(size - begin, pieceSize));
    }
  }
  for (int row = 0; row < count && pieces > 1; ++row) {
    float sum = 0.0f;
    for (std::size_t p = 0; p < pieces; ++p) sum += sums[row * pieces + p];
    sums[row] = sum;
  }
}

bool isOperation(cublasOperation_t operation) {
  return operation == CUBLAS_OP_N || operation == CUBLAS_OP_T;
}

/// Whether a column-major matrix is valid and in device memory.
bool isMatrix(const float* data, int rows, int columns, int leading) {
  return rows > 0 && columns > 0 && leading >= rows &&
         isDevice(data, (std::size_t{1} * leading * (columns - 1) + rows) * sizeof(float));
}

bool isOperand(cublasOperation_t operation, const float* data, int rows, int columns, int leading) {
  if (operation == CUBLAS_OP_T) std::swap(rows, columns);
  return isMatrix(data, rows, columns, leading);
}

}  // namespace

cublasStatus_t cublasSgemv_v2(cublasHandle_t handle, cublasOperation_t trans, int m, int n,
                              const float* alpha, const float* A, int lda, const float* x, int incx,
                              const float* beta, float* y, int incy) {
  return enter("cublasSgemv_v2", {trans, m, n, lda, incx, incy}, [&]() -> cublasStatus_t {
    if (!allLive(handle)) return CUBLAS_STATUS_NOT_INITIALIZED;
    if (!isOperation(trans) || !alpha || !beta || incx == 0 || incy == 0) {
      return CUBLAS_STATUS_INVALID_VALUE;
    }
    if (trans != CUBLAS_OP_T || incx != 1 || incy != 1) return CUBLAS_STATUS_NOT_SUPPORTED;
    if (!isMatrix(A, m, n, lda) || !isMatrix(x, m, 1, m) || !isMatrix(y, n, 1, n)) {
      return CUBLAS_STATUS_INVALID_VALUE;
    }
    std::vector<float> sums;
    dotRows(A, lda, m, n, x, sums);
    writeDevice(y, n * sizeof(float));
    for (int i = 0; i < n; ++i) {
      y[i] = *alpha * sums[i] + (*beta == 0.0f ? 0.0f : *beta * y[i]);
    }
    return CUBLAS_STATUS_SUCCESS;
  });
}

cublasStatus_t cublasSgemm_v2(cublasHandle_t handle, cublasOperation_t transa,
                              cublasOperation_t transb, int m, int n, int k, const float* alpha,
                              const float* A, int lda, const float* B, int ldb, const float* beta,
                              float* C, int ldc) {
  return enter("cublasSgemm_v2", {transa, transb, m, n, k, lda, ldb, ldc}, [&]() -> cublasStatus_t {
    if (!allLive(handle)) return CUBLAS_STATUS_NOT_INITIALIZED;
    if (!isOperation(transa) || !isOperation(transb) || !alpha || !beta ||
        !isOperand(transa, A, m, k, lda) || !isOperand(transb, B, k, n, ldb) ||
        !isMatrix(C, m, n, ldc)) {
      return CUBLAS_STATUS_INVALID_VALUE;
    }
    writeDevice(C, (std::size_t{1} * ldc * (n - 1) + m) * sizeof(float));
    // Column-major C is row-major C transposed, and so are A and B.
    const auto letter = [](cublasOperation_t operation) {
      return operation == CUBLAS_OP_T ? 'T' : 'N';
    };
    const auto status =
        dnnl_sgemm(letter(transb), letter(transa), n, m, k, *alpha, B, ldb, A, lda, *beta, C, ldc);
    return status == dnnl_success ? CUBLAS_STATUS_SUCCESS : CUBLAS_STATUS_EXECUTION_FAILED;
  });
}
