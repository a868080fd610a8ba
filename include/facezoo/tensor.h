/// @file
/// Activations in device memory, in blocks of a pool that network constructors size.
///
/// Process-wide and unsynchronized: see `GPU::getMutex`.
#pragma once

#include "errors.h"
#include "export.h"

#include <cuda_runtime.h>

#include <memory>

/// One block taken from the pool and the shape of the data in it. The block goes back to the end of
/// the free list with the object.
class FACEZOO_EXPORT TensorBase {
 public:
  /// A block of the pool.
  struct PoolBlock {
    int bytes;  ///< at `ptr`
    void* ptr;  ///< device memory
  };

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
