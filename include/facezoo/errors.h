/// @file
/// What the library throws: a bare enumeration value, which a host catches by its type. Before it
/// throws, it prints one line or nothing. If a call to the GPU libraries fails, it throws the
/// status of that call as it is: a `cudaError`, `cudnnStatus_t` or `cublasStatus_t`.
/// docs/failures.md lists every case.
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
  BAD_WEIGHTS = 1  ///< no map; a weight is missing or mis-sized; the layers moved to a copy
};

/// A tensor does not fit into a block of the pool, or no block is free.
enum FACEZOO_EXPORT TensorError : int {
  NO_BLOCK = 0  ///< also for a `maxBatch` whose blocks would exceed 2^31 - 1 bytes
};
