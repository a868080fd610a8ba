/// @file
/// How the library fails: it prints one line, or nothing, and throws a bare enumeration value. A
/// host catches by type; the GPU libraries' own statuses are thrown as `cudaError`, `cudnnStatus_t`
/// and `cublasStatus_t`. docs/failures.md lists every case.
#pragma once

#include "export.h"

#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cudnn.h>

/// No CUDA device satisfies the selection test of `GPU`.
enum FACEZOO_EXPORT GPUError : int {
  NO_SUITABLE_DEVICE = 0  ///< none has compute capability 5.0 and 2048 MiB
};

/// A weight file that does not serve, or a network that has none.
enum FACEZOO_EXPORT NetworkError : int {
  WEIGHT_FILE_NOT_FOUND = 0,  ///< the weight file cannot be opened or read
  BAD_WEIGHTS = 1  ///< not a map; a weight missing or mis-sized; a network whose layers moved away
};

/// A tensor does not fit in one pool block, or the pool has no free block.
enum FACEZOO_EXPORT TensorError : int {
  NO_BLOCK = 0  ///< also a `maxBatch` whose block would exceed 2^31 - 1 bytes
};
