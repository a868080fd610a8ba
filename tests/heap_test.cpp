// Once a shape has been seen, a pass takes nothing from the heap below the library. That it takes
// no device memory is among the calls that calls_test.cpp counts.
#include "seeded_network.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own, below those that it exports
extern "C" {
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* block, std::size_t bytes);
void* __libc_memalign(std::size_t alignment, std::size_t bytes);
extern const char __executable_start, etext;
}

namespace {

std::atomic<bool> counting{false};
std::atomic<int> allocations{0};
std::atomic<const char*> firstCaller{nullptr};

/// The library's sources are part of this executable. Whoever else calls is the platform, or works
/// for it.
void note(const void* caller) {
  if (!counting || (caller >= &__executable_start && caller < &etext)) return;
  if (++allocations == 1) firstCaller = static_cast<const char*>(caller);
}

void* orThrow(void* block) {
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

#define NOTE_CALLER() note(__builtin_return_address(0))

extern "C" {
void* malloc(std::size_t bytes) {
  NOTE_CALLER();
  return __libc_malloc(bytes);
}
void* calloc(std::size_t count, std::size_t bytes) {
  NOTE_CALLER();
  return __libc_calloc(count, bytes);
}
void* realloc(void* block, std::size_t bytes) {
  NOTE_CALLER();
  return __libc_realloc(block, bytes);
}
void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
  NOTE_CALLER();
  return __libc_memalign(alignment, bytes);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t bytes) {
  NOTE_CALLER();
  *block = __libc_memalign(alignment, bytes);
  return *block == nullptr ? ENOMEM : 0;
}
}

void* operator new(std::size_t bytes) {
  NOTE_CALLER();
  return orThrow(__libc_malloc(bytes));
}
void* operator new[](std::size_t bytes) {
  NOTE_CALLER();
  return orThrow(__libc_malloc(bytes));
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
  NOTE_CALLER();
  return orThrow(__libc_memalign(static_cast<std::size_t>(alignment), bytes));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment) {
  NOTE_CALLER();
  return orThrow(__libc_memalign(static_cast<std::size_t>(alignment), bytes));
}
// NOLINTEND(bugprone-reserved-identifier)

namespace facezoo::test {
namespace {

struct HeapTest : DeviceTest, testing::WithParamInterface<NetworkKind> {};

TEST_P(HeapTest, IsLeftAloneOnceAShapeIsKnown) {
  ForwardCall forward{GetParam().table, 2};
  const std::unique_ptr<Network> net(GetParam().construct(seededFile(GetParam().table), 2));
  for (const int batch : {1, 2}) {
    forward(*net, batch);
    allocations = 0;
    counting = true;
    forward(*net, batch);
    counting = false;
    if (allocations == 0) continue;
    Dl_info module{};
    dladdr(firstCaller, &module);
    ADD_FAILURE() << allocations << " allocations, batch " << batch << "; addr2line -e "
                  << module.dli_fname << " " << std::hex
                  << firstCaller - static_cast<char*>(module.dli_fbase);
  }
}

INSTANTIATE_TEST_SUITE_P(, HeapTest, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace facezoo::test
