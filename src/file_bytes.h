/// @file
/// Reads large files into memory.
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

/// Reads `file` from its position to its end; `file.bad()` tells whether that failed. If `path`, by
/// which it was opened, names a regular file, the memory is allocated once, in that file's size. A
/// file that grows meanwhile, or has no size, is read all the same.
/// @throws std::bad_alloc
FileBytes readAll(std::istream& file, const char* path);

/// Keeps the first `size` bytes, at least one, and frees the memory of the rest. If there is a
/// rest, the bytes may move.
/// @throws std::bad_alloc
void shrink(FileBytes& bytes, std::size_t size);

}  // namespace facezoo
