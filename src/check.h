/// @file
/// Checks of the status that a GPU-library call returns. A failing status is cleared from the
/// runtime, printed as one line on standard error with the file and line of the call, and thrown as
/// it is.
#pragma once

#include "report.h"

#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cudnn.h>

#include <cstdio>

/// @throws cudaError `status`, unless it is cudaSuccess
inline void CheckCuda(cudaError_t status, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) {
  if (status == cudaSuccess) return;
  cudaGetLastError();
  facezoo::report(stderr, "[Error] %s (cuda error code: %d) at %s line %d\n",
                  cudaGetErrorString(status), static_cast<int>(status), file, line);
  throw static_cast<cudaError>(status);
}

/// @throws cudnnStatus_t `status`, unless it is CUDNN_STATUS_SUCCESS
inline void CheckCudnn(cudnnStatus_t status, const char* file = __builtin_FILE(),
                       int line = __builtin_LINE()) {
  if (status == CUDNN_STATUS_SUCCESS) return;
  cudaGetLastError();
  facezoo::report(stderr, "[Error] %s (cudnn error code: %d) at %s line %d\n",
                  cudnnGetErrorString(status), static_cast<int>(status), file, line);
  throw status;
}

/// @throws cublasStatus_t `status`, unless it is CUBLAS_STATUS_SUCCESS
inline void CheckCublas(cublasStatus_t status, const char* file = __builtin_FILE(),
                        int line = __builtin_LINE()) {
  if (status == CUBLAS_STATUS_SUCCESS) return;
  cudaGetLastError();
  facezoo::report(stderr, "[Error] (cublas error code: %d) at %s line %d\n",
                  static_cast<int>(status), file, line);
  throw status;
}

namespace facezoo {

/// Runs a step whose failure must not keep the steps after it from running: what it throws ends
/// here, after a check in it has printed its line.
/// @return whether it succeeded
template <class Step>
bool succeeds(const Step& step) noexcept {
  try {
    step();
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace facezoo
