#include "device_memory.h"

#include "host_device.h"
#include "simulated_devices.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <map>
#include <mutex>
#include <utility>

namespace host_device {
namespace {

/// Wide enough for any vector load; also what the real runtime promises.
constexpr std::size_t kAlignment = 256;
constexpr std::size_t kHugePage = std::size_t{2} << 20;

struct Allocation {
  std::size_t bytes;
  std::size_t device;
  std::map<detail::DerivedKey, std::shared_ptr<detail::Derived>> derived;
};

struct Registry {
  std::mutex mutex;
  std::map<std::uintptr_t, Allocation> allocations;
  std::map<std::size_t, std::size_t> usedBytes;  // per device
  bool poison = false;
};

/// Never destroyed: the library's process-wide state may be released while the process ends.
Registry& registry() {
  static Registry& instance = *new Registry;
  return instance;
}

std::uintptr_t address(const void* pointer) { return reinterpret_cast<std::uintptr_t>(pointer); }

using Entry = std::map<std::uintptr_t, Allocation>::iterator;

/// The allocation that holds all of [pointer, pointer + bytes), or end.
Entry holder(Registry& r, const void* pointer, std::size_t bytes) {
  Entry entry = r.allocations.upper_bound(address(pointer));
  if (entry == r.allocations.begin()) return r.allocations.end();
  --entry;
  const std::size_t offset = address(pointer) - entry->first;
  const bool inside = offset <= entry->second.bytes && bytes <= entry->second.bytes - offset;
  return inside ? entry : r.allocations.end();
}

void fillWithSignallingNaN(void* block, std::size_t bytes) {
  const float nan = std::numeric_limits<float>::signaling_NaN();
  std::uint32_t pattern;
  std::copy_n(reinterpret_cast<const char*>(&nan), sizeof nan, reinterpret_cast<char*>(&pattern));
  std::fill_n(static_cast<std::uint32_t*>(block), (bytes + 3) / 4, pattern);
}

}  // namespace

namespace detail {

void* allocateBlock(std::size_t bytes) {
  const bool large = bytes >= kHugePage;
  const std::size_t alignment = large ? kHugePage : kAlignment;
  void* block = std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment);
  if (large && block != nullptr) madvise(block, bytes, MADV_HUGEPAGE);
  return block;
}

cudaError_t allocateDevice(void** pointer, std::size_t bytes) {
  if (pointer == nullptr) return cudaErrorInvalidValue;
  *pointer = nullptr;
  if (bytes == 0) return cudaSuccess;
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const std::size_t device = currentDevice();
  const std::size_t total = deviceMemory(device);
  std::size_t& used = r.usedBytes[device];
  if (used > total || bytes > total - used) return cudaErrorMemoryAllocation;
  void* block = allocateBlock(bytes);
  if (block == nullptr) return cudaErrorMemoryAllocation;
  try {
    r.allocations.emplace(address(block), Allocation{bytes, device, {}});
  } catch (...) {
    std::free(block);
    throw;
  }
  if (r.poison) fillWithSignallingNaN(block, bytes);
  used += bytes;
  *pointer = block;
  return cudaSuccess;
}

cudaError_t freeDevice(void* pointer) {
  if (pointer == nullptr) return cudaSuccess;
  Registry& r = registry();
  std::map<std::uintptr_t, Allocation>::node_type node;
  {
    const std::lock_guard<std::mutex> lock(r.mutex);
    node = r.allocations.extract(address(pointer));
    if (node.empty()) return cudaErrorInvalidValue;
    r.usedBytes[node.mapped().device] -= node.mapped().bytes;
  }
  std::free(pointer);
  return cudaSuccess;
}

bool isDevice(const void* pointer, std::size_t bytes) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  return holder(r, pointer, bytes) != r.allocations.end();
}

bool touchesDevice(const void* pointer, std::size_t bytes) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const auto next = r.allocations.lower_bound(address(pointer) + 1);
  if (next != r.allocations.end() && next->first - address(pointer) < bytes) return true;
  return holder(r, pointer, 1) != r.allocations.end();
}

bool writeDevice(void* pointer, std::size_t bytes) {
  std::map<DerivedKey, std::shared_ptr<Derived>> stale;  // outlives the lock
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const Entry entry = holder(r, pointer, bytes);
  if (entry == r.allocations.end()) return false;
  stale.swap(entry->second.derived);
  return true;
}

std::shared_ptr<Derived> findDerived(const void* pointer, const DerivedKey& key) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const Entry entry = holder(r, pointer, 1);
  if (entry == r.allocations.end()) return nullptr;
  const auto found = entry->second.derived.find(key);
  return found == entry->second.derived.end() ? nullptr : found->second;
}

void storeDerived(const void* pointer, const DerivedKey& key, std::shared_ptr<Derived> value) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const Entry entry = holder(r, pointer, 1);
  if (entry != r.allocations.end()) entry->second.derived[key] = std::move(value);
}

AllocationCount liveAllocations() {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  AllocationCount count{r.allocations.size(), 0};
  for (const auto& used : r.usedBytes) count.bytes += used.second;
  return count;
}

std::size_t usedMemory(std::size_t device) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  return r.usedBytes[device];
}

}  // namespace detail

void poisonFreshMemory(bool on) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  r.poison = on;
}

}  // namespace host_device
