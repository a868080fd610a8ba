/// @file
/// Activations in device memory, the pool of equal blocks they live in, and the cuBLAS handle whose
/// life is the pool's.
///
/// Process-wide and unsynchronized: see `GPU::getMutex`. The pool is sized by network constructors,
/// while no tensor exists, so that `Forward` allocates no device memory.
#pragma once

#include "check.h"
#include "errors.h"
#include "facezoo_export.h"

#include <cublas_v2.h>
#include <cuda_runtime.h>

#include <cstddef>
#include <memory>

/// A block of the pool.
struct PoolBlock {
  int bytes;  ///< at `ptr`
  void* ptr;  ///< device memory
};

/// One block taken from the pool and the shape of the data in it. The block goes back to the end of
/// the free list with the object.
class FACEZOO_EXPORT TensorBase {
 public:
  /// Takes the first free block; its contents are whatever its last user left.
  /// @throws TensorError 0 if N·C·H·W floats do not fit a block, or no block is free
  explicit TensorBase(int4 shape);
  virtual ~TensorBase();
  TensorBase(const TensorBase&) = delete;
  TensorBase& operator=(const TensorBase&) = delete;

  float* data;  ///< device memory; element (n, c, h, w) is at ((n·C + c)·H + h)·W + w
  int4 shape;   ///< N, C, H, W; for a network's input bytes N, H, W, C

 private:
  PoolBlock block_;
};

/// Shared handle to a `TensorBase`; copies share the block.
class FACEZOO_EXPORT Tensor {
 public:
  Tensor() = default;  ///< no block
  /// @throws TensorError 0, see `TensorBase`
  explicit Tensor(int4 shape) : base(std::make_shared<TensorBase>(shape)) {}
  /// @{
  /// A copy shares the block; a move hands it over.
  Tensor(const Tensor&) = default;
  Tensor(Tensor&&) = default;
  Tensor& operator=(const Tensor&) = default;
  Tensor& operator=(Tensor&&) = default;
  /// @}
  virtual ~Tensor() = default;

  std::shared_ptr<TensorBase> base;  ///< null where there is no block
};

// What follows is for the library's own constructors and destructors; it is not exported.

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
