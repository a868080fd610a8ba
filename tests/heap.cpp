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
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* memory);
extern const char __executable_start, etext;
}

namespace facezoo::test::heap {
namespace {

std::atomic<std::size_t> allocations{0}, fromOutside{0}, live{0}, bytes{0}, peak{0};
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

/// Counts an allocation. The library's sources are part of this executable, so that callers outside
/// of it are the platform and the libraries that it uses.
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

void* grown(void* memory) {
  if (memory == nullptr) return nullptr;
  ++live;
  const std::size_t now = bytes += malloc_usable_size(memory);
  std::size_t most = peak;
  while (most < now && !peak.compare_exchange_weak(most, now)) {
  }
  return memory;
}

void shrunk(std::size_t by) {
  --live;
  bytes -= by;
}

void* orThrow(void* memory) {
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

#ifdef FACEZOO_SANITIZED
void* take(std::size_t size) { return std::malloc(size); }
void* takeAligned(std::size_t alignment, std::size_t size) {
  void* memory = nullptr;
  return posix_memalign(&memory, alignment, size) == 0 ? memory : nullptr;
}
void giveBack(void* memory) { std::free(memory); }
#else
void* take(std::size_t size) { return __libc_malloc(size); }
void* takeAligned(std::size_t alignment, std::size_t size) {
  return __libc_memalign(alignment, size);
}
void giveBack(void* memory) { __libc_free(memory); }
#endif

void release(void* memory) {
  if (memory != nullptr) shrunk(malloc_usable_size(memory));
  giveBack(memory);
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

Usage usage() { return {allocations, fromOutside, firstCaller, live, bytes, peak}; }

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
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { release(memory); }
void operator delete(void* memory, std::align_val_t /*alignment*/) noexcept { release(memory); }
void operator delete[](void* memory, std::align_val_t /*alignment*/) noexcept { release(memory); }
void operator delete(void* memory, std::size_t /*size*/, std::align_val_t /*alignment*/) noexcept {
  release(memory);
}
void operator delete[](void* memory, std::size_t /*size*/,
                       std::align_val_t /*alignment*/) noexcept {
  release(memory);
}

#ifndef FACEZOO_SANITIZED
extern "C" {
void* malloc(std::size_t size) { return allocate(CALLER, size); }
void* calloc(std::size_t count, std::size_t size) {
  return refuses(CALLER) ? nullptr : grown(__libc_calloc(count, size));
}
void* realloc(void* memory, std::size_t size) {
  if (refuses(CALLER)) return nullptr;
  const std::size_t before = malloc_usable_size(memory);
  void* const moved = __libc_realloc(memory, size);
  if (memory != nullptr && (moved != nullptr || size == 0)) shrunk(before);
  return grown(moved);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return allocate(CALLER, size, alignment);
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  *memory = allocate(CALLER, size, alignment);
  return *memory == nullptr ? ENOMEM : 0;
}
void free(void* memory) { release(memory); }
}
#endif
// NOLINTEND(bugprone-reserved-identifier)
