/// @file
/// What the library throws: a bare enumeration value, after it has printed one line or nothing. A
/// host catches it by its type; a failing GPU library's status is thrown as it is, a `cudaError`,
/// `cudnnStatus_t` or `cublasStatus_t`. docs/failures.md lists every case.
#pragma once

#include "export.h"

#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cudnn.h>

/// No CUDA device satisfies the selection test of `GPU`.
enum FACEZOO_EXPORT GPUError : int {
  NO_SUITABLE_DEVICE = 0  ///< none has compute capability 5.0 and 2048 MiB
};

/// The weight file cannot be used, or a copy has taken over the network's layers.
enum FACEZOO_EXPORT NetworkError : int {
  WEIGHT_FILE_NOT_FOUND = 0,  ///< the weight file cannot be opened or read
  BAD_WEIGHTS = 1  ///< no map; a weight is missing or has another size; the layers moved to a copy
};

/// A tensor does not fit in one pool block, or the pool has no free block.
enum FACEZOO_EXPORT TensorError : int {
  NO_BLOCK = 0  ///< also a `maxBatch` whose block would exceed 2^31 - 1 bytes
};
