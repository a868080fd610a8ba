#include "facezoo/tensor.h"

#include "buffer_pool.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <vector>

cublasHandle_t blasHandle = nullptr;
bool blasCreated = false;

namespace {

using PoolBlock = TensorBase::PoolBlock;
using FreeList = std::vector<PoolBlock>;

/// Never destroyed, because a network may outlive the library's static objects.
alignas(FreeList) unsigned char listMemory[sizeof(FreeList)];
FreeList& bufferPool = *new (listMemory) FreeList;

/// When the library is unloaded, frees the list's own memory and leaves an empty list. Device
/// blocks that are still in it are not freed, because no GPU call may run in a static destructor.
const struct ListRelease {
  ~ListRelease() { FreeList().swap(bufferPool); }
} listRelease;

int blockSize = 0;
int blockCount = 0;
int takenBlocks = 0;

/// Blocks that exist, free or taken. They are fewer than `blockCount` after an allocation or
/// release failed, or after the list was emptied at the library's end.
int existingBlocks() { return takenBlocks + static_cast<int>(bufferPool.size()); }

}  // namespace

void growPool(int bytes, int count) {
  // Blocks come back in destructors, where the list must not allocate: it gets its memory here,
  // before anything else changes, so that the pool stays as it is if there is none.
  bufferPool.reserve(static_cast<std::size_t>(std::max(blockCount, count)));
  if (blockSize < bytes) {
    const int previous = blockCount;
    freePool();
    blockSize = bytes;
    blockCount = previous;
  }
  blockCount = std::max(blockCount, count);
  while (existingBlocks() < blockCount) {
    PoolBlock block{blockSize, nullptr};
    CheckCuda(cudaMalloc(&block.ptr, static_cast<std::size_t>(blockSize)));
    bufferPool.push_back(block);
  }
}

void freePool(std::size_t kept) {
  while (bufferPool.size() > kept) {
    const auto block = bufferPool.begin() + static_cast<std::ptrdiff_t>(kept);
    CheckCuda(cudaFree(block->ptr));
    bufferPool.erase(block);
  }
  if (kept > 0) return;
  blockCount = 0;
  blockSize = 0;
}

TensorBase::TensorBase(int4 extents) : shape(extents) {
  // In any integer type, N·C·H·W·4 of huge extents can wrap around to a size that fits a block. In
  // double it is exact for every size that fits, and too large for all others.
  const double bytes = 4.0 * shape.x * shape.y * shape.z * shape.w;
  if (bytes > blockSize || bufferPool.empty()) throw NO_BLOCK;
  block_ = bufferPool.front();
  data = static_cast<float*>(block_.ptr);
  bufferPool.erase(bufferPool.begin());
  ++takenBlocks;
}

TensorBase::~TensorBase() {
  bufferPool.push_back(block_);
  --takenBlocks;
}
