/// @file
/// Gives bytes in memory a path, for code that reads files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace facezoo::fuzz {

/// A regular file in memory, whose contents `fill` replaces.
class MemoryFile {
 public:
  const char* fill(const std::uint8_t* data, std::size_t size) {
    if (pwrite(descriptor_, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
    if (ftruncate(descriptor_, static_cast<off_t>(size)) != 0) std::abort();
    return path_.c_str();
  }

 private:
  int descriptor_ = memfd_create("input", 0);
  std::string path_ = "/proc/self/fd/" + std::to_string(descriptor_);
};

}  // namespace facezoo::fuzz
