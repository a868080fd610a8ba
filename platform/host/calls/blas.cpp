/// @file
/// The matrix products of cuBLAS.
#include <cublas_v2.h>

#include <algorithm>
#include <utility>

#include "instrumentation.h"
#include "kernels/kernels.h"
#include "kernels/parallel.h"
#include "operands.h"

using namespace host_device;

namespace {

/// A row-major product: c[i, j] = alpha · sum over k of a[i, k] b[j, k] + beta · c[i, j]. Both
/// factors are read where they lie, along k.
struct Product {
  std::size_t rows, columns, size;
  float alpha, beta;
  const float* a;
  std::size_t aStride;
  const float* b;
  std::size_t bStride;
  float* c;
  std::size_t cStride;
};

/// Threads share the rows of the taller factor, since it is what takes the time to read. Each takes
/// all its rows through a few columns before it goes on to the next, which stay in its cache.
void multiplyMatrices(const Product& product) {
  constexpr std::size_t tallest = 6, columns = 32;
  // Few rows go one by one, lest a thread have none.
  const std::size_t atOnce = product.rows < 64 ? 1 : tallest;
  const auto dotProducts = kernels().products.dotProducts;
  const auto multiply = [&](std::size_t row, std::size_t column) {
    const std::size_t tall = std::min(atOnce, product.rows - row);
    const std::size_t wide = std::min(columns, product.columns - column);
    float sums[tallest * columns];
    dotProducts(product.size, product.a + row * product.aStride, product.aStride,
                static_cast<int>(tall), product.b + column * product.bStride, product.bStride,
                static_cast<int>(wide), sums, columns);
    for (std::size_t r = 0; r < tall; ++r) {
      for (std::size_t s = 0; s < wide; ++s) {
        float& to = product.c[(column + s) * product.cStride + row + r];
        const float scaled = product.alpha * sums[r * columns + s];
        to = product.beta == 0.0f ? scaled : scaled + product.beta * to;
      }
    }
  };
  forRanges(dividedUp(product.rows, atOnce), atOnce * product.columns * product.size,
            [&](std::size_t begin, std::size_t end) {
              for (std::size_t column = 0; column < product.columns; column += columns) {
                for (std::size_t strip = begin; strip < end; ++strip) {
                  multiply(strip * atOnce, column);
                }
              }
            });
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
    writeDevice(y, n * sizeof(float));
    multiplyMatrices({std::size_t{1} * n, 1, std::size_t{1} * m, *alpha, *beta, A,
                      std::size_t{1} * lda, x, std::size_t{1} * m, y, std::size_t{1} * n});
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
    if (transa != CUBLAS_OP_T || transb != CUBLAS_OP_N) return CUBLAS_STATUS_NOT_SUPPORTED;
    writeDevice(C, (std::size_t{1} * ldc * (n - 1) + m) * sizeof(float));
    // A column-major matrix is a row-major one transposed.
    multiplyMatrices({std::size_t{1} * m, std::size_t{1} * n, std::size_t{1} * k, *alpha, *beta, A,
                      std::size_t{1} * lda, B, std::size_t{1} * ldb, C, std::size_t{1} * ldc});
    return CUBLAS_STATUS_SUCCESS;
  });
}
