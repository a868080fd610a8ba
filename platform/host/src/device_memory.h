/// @file
/// The registry of device memory: which address ranges are device memory, and what has been derived
/// from their contents.
#pragma once

#include <cuda_runtime.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace host_device {
namespace detail {

/// Something computed from the contents of an allocation, such as a packed filter. It dies with the
/// allocation and with any write to it.
struct Derived {
  virtual ~Derived() = default;
};
using DerivedKey = std::array<std::int64_t, 7>;

struct BlockRelease {
  std::size_t bytes;
  void operator()(void* block) const;
};
using Block = std::unique_ptr<void, BlockRelease>;

/// Memory aligned for any vector; null if there is none. A large block is mapped for it alone: in
/// the heap, its alignment leaves gaps, which grow to hundreds of MiB as networks come and go. The
/// largest are made of huge pages: first touching them in small ones would take several times as
/// long as filling them.
Block allocateBlock(std::size_t bytes);

cudaError_t allocateDevice(void** pointer, std::size_t bytes);
/// Null is freed without effect; an address that no live allocation starts at is an invalid value.
cudaError_t freeDevice(void* pointer);

/// Whether [pointer, pointer + bytes) lies inside one live allocation.
bool isDevice(const void* pointer, std::size_t bytes);
/// Whether any byte of [pointer, pointer + bytes) is device memory.
bool touchesDevice(const void* pointer, std::size_t bytes);

/// Declares that [pointer, pointer + bytes) is about to be written: drops what was derived from the
/// allocation. False, and nothing dropped, unless the range lies inside one live allocation.
bool writeDevice(void* pointer, std::size_t bytes);

/// What was stored under `key` with the allocation that holds `pointer`; null if nothing was.
std::shared_ptr<Derived> findDerived(const void* pointer, const DerivedKey& key);
/// `pointer` must lie inside a live allocation.
void storeDerived(const void* pointer, const DerivedKey& key, std::shared_ptr<Derived> value);

struct AllocationCount {
  std::size_t allocations, bytes;
};
AllocationCount liveAllocations();
/// Bytes of the live allocations of one device.
std::size_t usedMemory(std::size_t device);

}  // namespace detail
}  // namespace host_device
