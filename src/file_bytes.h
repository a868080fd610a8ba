/// @file
/// Large files in memory, at the price of one read.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <istream>
#include <memory>

namespace facezoo {

/// A file's contents.
struct FileBytes {
  struct Free {
    void operator()(char* bytes) const noexcept { std::free(bytes); }
  };
  std::unique_ptr<char, Free> data;  ///< to be released by std::free
  std::size_t size = 0;
};

/// All bytes of `file` from where it stands; `file.bad()` tells of a failure. If `path`, by which
/// it was opened, names a regular file, there is one allocation of that file's size; what grows,
/// and what has no size, is read all the same.
/// @throws std::bad_alloc
FileBytes readAll(std::istream& file, const char* path);

/// Keeps the first `size` bytes, at least one, and gives the memory of the rest back. The bytes may
/// move, unless there is no rest.
/// @throws std::bad_alloc
void shrink(FileBytes& bytes, std::size_t size);

}  // namespace facezoo
