#include "file_bytes.h"

#include <sys/mman.h>

#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>
#include <utility>

namespace facezoo {
namespace {

// With pages of 4 KiB, the faults of a buffer that is touched for the first time take longer than
// reading into it.
constexpr std::align_val_t kHugePage{std::size_t{2} << 20};

FileBytes allocate(std::size_t capacity) {
  FileBytes bytes;
  bytes.data.reset(static_cast<char*>(::operator new(capacity, kHugePage)));
  madvise(bytes.data.get(), capacity, MADV_HUGEPAGE);  // may be refused: it changes no result
  return bytes;
}

}  // namespace

void freeFileBytes(void* data) noexcept { ::operator delete(data, kHugePage); }

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

}  // namespace facezoo
