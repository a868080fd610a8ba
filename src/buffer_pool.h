/// @file
/// The pool of equal blocks of device memory in which tensors live, and the cuBLAS handle, which is
/// created and released with it.
///
/// Process-wide and unsynchronized: see `GPU::getMutex`. The pool is sized by network constructors,
/// while no tensor exists, so that `Forward` allocates no device memory.
#pragma once

#include "check.h"

#include <cublas_v2.h>

#include <cstddef>

/// Makes sure that the pool has at least `count` blocks of at least `bytes` bytes. The pool never
/// shrinks; a larger size allocates all blocks anew.
/// @throws cudaError
void growPool(int bytes, int count);

/// Releases the free blocks behind the first `kept`. If none is kept, the pool has no size any
/// more.
/// @throws cudaError at the first block that cannot be freed; it and those after it stay in the
/// pool
void freePool(std::size_t kept = 0);

extern cublasHandle_t blasHandle;  ///< of all fully connected layers
extern bool blasCreated;           ///< whether there is a `blasHandle`

/// Creates the cuBLAS handle if there is none, then `growPool`.
/// @throws cublasStatus_t, cudaError
inline void preparePool(int bytes, int count) {
  if (!blasCreated) {
    CheckCublas(cublasCreate_v2(&blasHandle));
    blasCreated = true;
  }
  growPool(bytes, count);
}

/// Releases the pool and the cuBLAS handle; does nothing if there is no handle. A block or handle
/// whose release fails stays, and everything else is released all the same.
inline void destroyPool() noexcept {
  if (!blasCreated) return;
  std::size_t kept = 0;
  while (!facezoo::succeeds([&] { freePool(kept); })) ++kept;
  facezoo::succeeds([] {
    CheckCublas(cublasDestroy_v2(blasHandle));
    blasCreated = false;
  });
}
