/// @file
/// A library that lets allocations and the start of threads fail in a program into which it is
/// preloaded. FAIL_MALLOC_AT and FAIL_THREAD_AT say from which call on, where the first is 1. At
/// its exit, the program writes the number of its allocations to the file that COUNT_TO names.
/// FAIL_CLOSE is the error that closing standard output gives.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

/// Counts the calls of one kind.
class Calls {
 public:
  explicit constexpr Calls(const char* variable) : variable_(variable) {}
  bool fail() {
    if (at_ == 0) {
      const char* const text = std::getenv(variable_);
      at_ = text == nullptr ? -1 : std::atoll(text);
    }
    return ++count_ >= at_ && at_ > 0;
  }
  long long count() const { return count_; }

 private:
  const char* variable_;
  std::atomic<long long> at_{0}, count_{0};
};
Calls allocations("FAIL_MALLOC_AT"), threads("FAIL_THREAD_AT");

bool isRefused() {
  const bool fails = allocations.fail();
  if (fails) errno = ENOMEM;
  return fails;
}

[[gnu::destructor]] void tellCount() {
  const char* const path = std::getenv("COUNT_TO");
  const int file = path == nullptr ? -1 : open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  if (file >= 0) dprintf(file, "%lld", allocations.count());
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the C library's own, below those that it exports
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size) { return isRefused() ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) {
  return isRefused() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
  return isRefused() ? nullptr : __libc_realloc(memory, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
  return isRefused() ? nullptr : __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) { return memalign(alignment, size); }
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  *memory = memalign(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}

int close(int file) {
  using Close = int (*)(int);
  static const auto original = reinterpret_cast<Close>(dlsym(RTLD_NEXT, "close"));
  struct stat closed = {}, output = {};
  const char* const error = std::getenv("FAIL_CLOSE");
  const bool isOutput = error != nullptr && fstat(file, &closed) == 0 &&
                        fstat(STDOUT_FILENO, &output) == 0 && closed.st_ino == output.st_ino;
  const int status = original(file);
  if (!isOutput) return status;
  errno = std::atoi(error);
  return -1;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) {
  using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto create = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
  return threads.fail() ? EAGAIN : create(thread, attributes, start, argument);
}
}
// NOLINTEND(bugprone-reserved-identifier)
