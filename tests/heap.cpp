#include "heap.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own, below those that it exports
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
extern const char __executable_start, etext;
}

namespace facezoo::test::heap {
namespace {

std::atomic<std::size_t> allocations{0}, fromOutside{0}, blocks{0}, bytes{0}, peak{0};
std::atomic<const char*> firstCaller{nullptr};

struct Plan {
  std::size_t at;
  Failing failing;
  void (*then)();
};
// Read and written by one thread; the others see whether there is one.
Plan plan;
std::atomic<bool> planned{false};
std::atomic<std::size_t> counted{0};

/// Counts an allocation. The library's sources are part of this executable: whoever else calls is
/// the platform, or works for it.
/// @return whether it must fail
bool refuses(const void* caller) {
  ++allocations;
  if ((caller < &__executable_start || caller >= &etext) && ++fromOutside == 1) {
    firstCaller = static_cast<const char*>(caller);
  }
  if (!planned) return false;
  const std::size_t number = ++counted;
  if (number == plan.at && plan.then != nullptr) plan.then();
  const bool fails = plan.failing == Failing::fromThenOn ? number >= plan.at : number == plan.at;
  if (fails) errno = ENOMEM;
  return fails;
}

void* grown(void* block) {
  if (block == nullptr) return nullptr;
  ++blocks;
  const std::size_t now = bytes += malloc_usable_size(block);
  std::size_t most = peak;
  while (most < now && !peak.compare_exchange_weak(most, now)) {
  }
  return block;
}

void shrunk(std::size_t by) {
  --blocks;
  bytes -= by;
}

void* orThrow(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

#ifdef FACEZOO_SANITIZED
void* take(std::size_t size) { return std::malloc(size); }
void* takeAligned(std::size_t alignment, std::size_t size) {
  void* block = nullptr;
  return posix_memalign(&block, alignment, size) == 0 ? block : nullptr;
}
void giveBack(void* block) { std::free(block); }
#else
void* take(std::size_t size) { return __libc_malloc(size); }
void* takeAligned(std::size_t alignment, std::size_t size) {
  return __libc_memalign(alignment, size);
}
void giveBack(void* block) { __libc_free(block); }
#endif

void release(void* block) {
  if (block != nullptr) shrunk(malloc_usable_size(block));
  giveBack(block);
}

void* allocate(const void* caller, std::size_t size) {
  return refuses(caller) ? nullptr : grown(take(size));
}
void* allocate(const void* caller, std::size_t size, std::size_t alignment) {
  return refuses(caller) ? nullptr : grown(takeAligned(alignment, size));
}
void* allocate(const void* caller, std::size_t size, std::align_val_t alignment) {
  return allocate(caller, size, static_cast<std::size_t>(alignment));
}

}  // namespace

void restart() {
  allocations = fromOutside = 0;
  firstCaller = nullptr;
  peak = bytes.load();
}

Usage usage() { return {allocations, fromOutside, firstCaller, blocks, bytes, peak}; }

void failAt(std::size_t at, Failing failing, void (*then)()) {
  plan = {at, failing, then};
  counted = 0;
  planned = true;
}

bool endFailing() {
  planned = false;
  return counted >= plan.at;
}

}  // namespace facezoo::test::heap

using namespace facezoo::test::heap;  // NOLINT(google-build-using-namespace)

#define CALLER __builtin_return_address(0)

void* operator new(std::size_t size) { return orThrow(allocate(CALLER, size)); }
void* operator new[](std::size_t size) { return orThrow(allocate(CALLER, size)); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return orThrow(allocate(CALLER, size, alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return orThrow(allocate(CALLER, size, alignment));
}
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
  return allocate(CALLER, size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
  return allocate(CALLER, size);
}
void operator delete(void* block) noexcept { release(block); }
void operator delete[](void* block) noexcept { release(block); }
void operator delete(void* block, std::size_t /*size*/) noexcept { release(block); }
void operator delete[](void* block, std::size_t /*size*/) noexcept { release(block); }
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept { release(block); }
void operator delete[](void* block, std::align_val_t /*alignment*/) noexcept { release(block); }
void operator delete(void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  release(block);
}
void operator delete[](void* block, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  release(block);
}

#ifndef FACEZOO_SANITIZED
extern "C" {
void* malloc(std::size_t size) { return allocate(CALLER, size); }
void* calloc(std::size_t count, std::size_t size) {
  return refuses(CALLER) ? nullptr : grown(__libc_calloc(count, size));
}
void* realloc(void* block, std::size_t size) {
  if (refuses(CALLER)) return nullptr;
  const std::size_t before = malloc_usable_size(block);
  void* const moved = __libc_realloc(block, size);
  if (block != nullptr && (moved != nullptr || size == 0)) shrunk(before);
  return grown(moved);
}
// Only OpenMP's runtime calls it, for its teams, and ends the process if it is refused.
void* memalign(std::size_t alignment, std::size_t size) {
  return grown(__libc_memalign(alignment, size));
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return allocate(CALLER, size, alignment);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  *block = allocate(CALLER, size, alignment);
  return *block == nullptr ? ENOMEM : 0;
}
void free(void* block) { release(block); }
}
#endif
// NOLINTEND(bugprone-reserved-identifier)
