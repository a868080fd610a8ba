/// @file
/// The pool of equal blocks of device memory that tensors live in, and the cuBLAS handle whose life
/// is the pool's.
///
/// Process-wide and unsynchronized: see `GPU::getMutex`. The pool is sized by network constructors,
/// while no tensor exists, so that `Forward` allocates no device memory.
#pragma once

#include "check.h"

#include <cublas_v2.h>

#include <cstddef>

/// Makes the pool serve blocks of at least `bytes` bytes, at least `count` of them. Blocks only
/// grow in size and number; a larger size allocates all of them anew.
/// @throws cudaError
void growPool(int bytes, int count);

/// Releases the free blocks behind the first `kept` and, if none is kept, forgets the sizing.
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

/// Releases the pool and the cuBLAS handle; does nothing if there is no handle. A block that cannot
/// be freed stays in the pool, a handle that cannot be destroyed stays too; neither keeps the rest.
inline void destroyPool() noexcept {
  if (!blasCreated) return;
  std::size_t kept = 0;
  while (!facezoo::succeeds([&] { freePool(kept); })) ++kept;
  facezoo::succeeds([] {
    CheckCublas(cublasDestroy_v2(blasHandle));
    blasCreated = false;
  });
}
