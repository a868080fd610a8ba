#include "device_memory.h"

#include "calls/simulated_devices.h"
#include "host_device.h"

#include <sys/mman.h>
#include <unistd.h>

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
/// From this size on memory has pages of its own, as by default in the heap. Sanitizers watch the
/// heap only, so that for them all of it comes from there.
#ifdef FACEZOO_SANITIZED
constexpr std::size_t kSmallestMapped = std::numeric_limits<std::size_t>::max();
#else
constexpr std::size_t kSmallestMapped = std::size_t{128} << 10;
#endif

struct Allocation {
  HostMemory memory;
  std::size_t bytes;
  std::size_t device;
  std::map<KeptFilterKey, KeptFilter> kept;
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

std::size_t roundedUp(std::size_t bytes, std::size_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

std::size_t smallPage() {
  static const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return size;
}

/// What so many bytes take if they have pages of their own; 0 if they are part of the heap.
std::size_t mappedBytes(std::size_t bytes) {
  return bytes < kSmallestMapped ? 0 : roundedUp(bytes, smallPage());
}

/// `bytes`, a multiple of small pages; null if there are none. As much of them as fills huge pages
/// starts with such a page.
void* mapPages(std::size_t bytes) {
  const std::size_t inHugePages = bytes / kHugePage * kHugePage;
  const std::size_t alignment = inHugePages > 0 ? kHugePage : smallPage();
  // More than is needed, to cut an aligned range from.
  const std::size_t more = alignment - smallPage();
  void* const mapped =
      mmap(nullptr, bytes + more, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return nullptr;
  const std::size_t before = roundedUp(address(mapped), alignment) - address(mapped);
  char* const start = static_cast<char*>(mapped) + before;
  if (before > 0) munmap(mapped, before);
  if (more > before) munmap(start + bytes, more - before);
  if (inHugePages > 0) madvise(start, inHugePages, MADV_HUGEPAGE);
  // To get small pages all at once is faster than one by one, as they are touched.
  if (bytes > inHugePages) madvise(start + inHugePages, bytes - inHugePages, MADV_POPULATE_WRITE);
  return start;
}

void fillWithSignallingNaN(void* memory, std::size_t bytes) {
  const float nan = std::numeric_limits<float>::signaling_NaN();
  std::uint32_t pattern;
  std::copy_n(reinterpret_cast<const char*>(&nan), sizeof nan, reinterpret_cast<char*>(&pattern));
  std::fill_n(static_cast<std::uint32_t*>(memory), (bytes + 3) / 4, pattern);
}

}  // namespace

void HostMemoryRelease::operator()(void* memory) const {
  if (const std::size_t mapped = mappedBytes(bytes); mapped > 0) {
    munmap(memory, mapped);
  } else {
    std::free(memory);
  }
}

HostMemory allocateHost(std::size_t bytes) {
  const std::size_t mapped = mappedBytes(bytes);
  void* const memory =
      mapped > 0 ? mapPages(mapped) : std::aligned_alloc(kAlignment, roundedUp(bytes, kAlignment));
  return {memory, HostMemoryRelease{bytes}};
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
  HostMemory memory = allocateHost(bytes);
  void* const start = memory.get();
  if (start == nullptr) return cudaErrorMemoryAllocation;
  r.allocations.emplace(address(start), Allocation{std::move(memory), bytes, device, {}});
  if (r.poison) fillWithSignallingNaN(start, bytes);
  used += bytes;
  *pointer = start;
  return cudaSuccess;
}

cudaError_t freeDevice(void* pointer) {
  if (pointer == nullptr) return cudaSuccess;
  Registry& r = registry();
  std::map<std::uintptr_t, Allocation>::node_type node;  // outlives the lock
  const std::lock_guard<std::mutex> lock(r.mutex);
  node = r.allocations.extract(address(pointer));
  if (node.empty()) return cudaErrorInvalidValue;
  r.usedBytes[node.mapped().device] -= node.mapped().bytes;
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
  std::map<KeptFilterKey, KeptFilter> stale;  // outlives the lock
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const Entry entry = holder(r, pointer, bytes);
  if (entry == r.allocations.end()) return false;
  stale.swap(entry->second.kept);
  return true;
}

bool zeroUntouched(void* pointer, std::size_t bytes) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const auto entry = r.allocations.find(address(pointer));
  return entry != r.allocations.end() && entry->second.bytes == bytes && bytes >= kHugePage &&
         mappedBytes(bytes) > 0 && madvise(pointer, mappedBytes(bytes), MADV_DONTNEED) == 0;
}

std::optional<KeptFilter> findKept(const void* pointer, const KeptFilterKey& key) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const Entry entry = holder(r, pointer, 1);
  if (entry == r.allocations.end()) return std::nullopt;
  const auto found = entry->second.kept.find(key);
  if (found == entry->second.kept.end()) return std::nullopt;
  return found->second;
}

void keepFilter(const void* pointer, const KeptFilterKey& key, KeptFilter filter) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  const Entry entry = holder(r, pointer, 1);
  if (entry != r.allocations.end()) entry->second.kept[key] = std::move(filter);
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

void poisonFreshMemory(bool on) {
  Registry& r = registry();
  const std::lock_guard<std::mutex> lock(r.mutex);
  r.poison = on;
}

}  // namespace host_device
