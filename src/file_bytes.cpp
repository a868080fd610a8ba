#include "file_bytes.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>
#include <utility>

namespace facezoo {
namespace {

/// Large buffers ask for huge pages: with pages of 4 KiB, the page faults of the first touch take
/// longer than reading the file.
constexpr std::size_t kHugePage = std::size_t{2} << 20;

FileBytes allocate(std::size_t capacity) {
  FileBytes bytes;
  const bool large = capacity >= kHugePage;
  const std::size_t whole = (capacity + kHugePage - 1) / kHugePage * kHugePage;
  void* const data = large ? std::aligned_alloc(kHugePage, whole) : std::malloc(capacity);
  if (data == nullptr) throw std::bad_alloc();
  bytes.data.reset(static_cast<char*>(data));
  if (large) madvise(data, capacity, MADV_HUGEPAGE);  // may be refused: it changes no result
  return bytes;
}

}  // namespace

FileBytes readAll(std::istream& file, const char* path) {
  std::error_code unknown;
  std::size_t capacity = std::filesystem::file_size(path, unknown);
  if (unknown) capacity = std::size_t{1} << 20;
  ++capacity;  // room to see the end
  FileBytes bytes = allocate(capacity);
  while (true) {
    file.read(bytes.data.get() + bytes.size, static_cast<std::streamsize>(capacity - bytes.size));
    bytes.size += static_cast<std::size_t>(file.gcount());
    if (!file) return bytes;
    capacity *= 2;
    FileBytes larger = allocate(capacity);
    std::memcpy(larger.data.get(), bytes.data.get(), bytes.size);
    larger.size = bytes.size;
    bytes = std::move(larger);
  }
}

void shrink(FileBytes& bytes, std::size_t size) {
  if (size == bytes.size) return;
  FileBytes smaller = allocate(size);
  std::memcpy(smaller.data.get(), bytes.data.get(), size);
  smaller.size = size;
  bytes = std::move(smaller);
}

}  // namespace facezoo
