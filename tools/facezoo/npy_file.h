/// @file
#pragma once

#include "files.h"

#include <cstddef>
#include <string>

/// A NumPy array of rows of little-endian 32-bit floats, in format 1.0 of
/// https://numpy.org/doc/stable/reference/generated/numpy.lib.format.html. Appears complete or not
/// at all.
class NpyFile {
 public:
  /// @throws Failure if the file cannot be made
  NpyFile(const std::string& path, std::size_t columns);

  void add(const float* row);
  /// @throws Failure if not everything could be written
  void keep();
  std::size_t rows() const { return rows_; }

 private:
  void writeHeader();

  NewFile file_;
  std::size_t columns_, rows_ = 0;
};
