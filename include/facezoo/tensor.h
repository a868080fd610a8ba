/// @file
/// Activations in device memory, in blocks of a pool that network constructors size.
///
/// Process-wide and unsynchronized: see `GPU::getMutex`.
#pragma once

#include "errors.h"
#include "export.h"

#include <cuda_runtime.h>

#include <memory>

/// One block of the pool, and the shape of the data in it. The destructor gives the block back to
/// the end of the pool's list of free blocks.
class FACEZOO_EXPORT TensorBase {
 public:
  /// A block of the pool.
  struct PoolBlock {
    int bytes;  ///< at `ptr`
    void* ptr;  ///< device memory
  };

  /// Takes the first free block. Its contents are what its last user left there.
  /// @throws TensorError 0 if N·C·H·W floats do not fit into a block, or no block is free
  explicit TensorBase(int4 shape);
  virtual ~TensorBase();
  TensorBase(const TensorBase&) = delete;
  TensorBase& operator=(const TensorBase&) = delete;

  float* data;  ///< device memory; element (n, c, h, w) is at ((n·C + c)·H + h)·W + w
  int4 shape;   ///< N, C, H, W; for a network's input bytes N, H, W, C

 private:
  PoolBlock block_;
};

/// Shared handle to a `TensorBase`. Copies share its block; the last one gives it back.
class FACEZOO_EXPORT Tensor {
 public:
  Tensor() = default;  ///< no block
  /// Takes a block for data of that shape. @throws TensorError 0, see `TensorBase`
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
