/// @file
/// The registry of device memory: which address ranges are device memory, and which filters
/// were made of their contents.
#pragma once

#include <cuda_runtime.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace host_device {

struct HostMemoryRelease {
  std::size_t bytes;
  void operator()(void* memory) const;
};
using HostMemory = std::unique_ptr<void, HostMemoryRelease>;

/// Memory aligned for any vector; null if there is none. From 128 KiB on it is mapped by itself: in
/// the heap, its alignment would leave gaps, which grow to hundreds of MiB as networks come and go.
/// As much of it as fills huge pages, of 2 MiB, asks for them: first touching it in small ones
/// would take several times as long as filling it. The rest, which is up to half of a filter, does
/// not.
HostMemory allocateHost(std::size_t bytes);

cudaError_t allocateDevice(void** pointer, std::size_t bytes);
/// Null is freed without effect; an address that no live allocation starts at is an invalid value.
cudaError_t freeDevice(void* pointer);

/// Whether [pointer, pointer + bytes) lies inside one live allocation.
bool isDevice(const void* pointer, std::size_t bytes);
/// Whether any byte of [pointer, pointer + bytes) is device memory.
bool touchesDevice(const void* pointer, std::size_t bytes);

/// Declares that [pointer, pointer + bytes) is about to be written: drops the filters kept with the
/// allocation. False, and nothing dropped, unless the range lies inside one live allocation.
bool writeDevice(void* pointer, std::size_t bytes);

/// Makes an allocation zero by giving its pages back to the system, which hands out zeros where it
/// is next touched: a workspace takes memory as far as it is used. False, and nothing done, unless
/// the range is all of a live allocation with huge pages of its own.
bool zeroUntouched(void* pointer, std::size_t bytes);

/// A filter as an algorithm has rearranged it. Its allocation keeps it until any write to it.
using KeptFilter = std::shared_ptr<const float>;
using KeptFilterKey = std::array<std::int64_t, 7>;
/// What was kept under `key` with the allocation that holds `pointer`, which may be null; nothing
/// if nothing was.
std::optional<KeptFilter> findKept(const void* pointer, const KeptFilterKey& key);
/// `pointer` must lie inside a live allocation.
void keepFilter(const void* pointer, const KeptFilterKey& key, KeptFilter filter);

struct AllocationCount {
  std::size_t allocations, bytes;
};
AllocationCount liveAllocations();
/// Bytes of the live allocations of one device.
std::size_t usedMemory(std::size_t device);

}  // namespace host_device
