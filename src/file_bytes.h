/// @file
/// Large files in memory, at the price of one read.
#pragma once

#include <cstddef>
#include <istream>
#include <memory>

namespace facezoo {

/// Releases what `readAll` allocated.
void freeFileBytes(void* data) noexcept;

/// A file's contents.
struct FileBytes {
  struct Free {
    void operator()(char* bytes) const noexcept { freeFileBytes(bytes); }
  };
  std::unique_ptr<char, Free> data;
  std::size_t size = 0;
};

/// All bytes of `file` from where it stands; `file.bad()` tells of a failure. If `path`, by which
/// it was opened, names a regular file, there is one allocation of that file's size; what grows,
/// and what has no size, is read all the same.
/// @throws std::bad_alloc
FileBytes readAll(std::istream& file, const char* path);

}  // namespace facezoo
