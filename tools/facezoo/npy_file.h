/// @file
/// NumPy arrays of rows of little-endian 32-bit floats, in the format of
/// https://numpy.org/doc/stable/reference/generated/numpy.lib.format.html.
#pragma once

#include "file_bytes.h"

#include <cstddef>
#include <string>
#include <vector>

/// What stands in front of the values, in version 1.0; of the same size for every number of rows.
std::string npyHeader(std::size_t rows, std::size_t columns);

/// The file of the names of the rows of `path`, a JSON string a line: beside it, .names.jsonl
/// instead of .npy.
std::string namesFileOf(const std::string& path);

/// The rows of a file in memory.
class NpyRows {
 public:
  /// Versions 1.0 to 3.0. @throws Failure if it is anything but a whole array of two dimensions
  explicit NpyRows(const std::string& path);

  std::size_t rows() const { return rows_; }
  std::size_t columns() const { return columns_; }
  /// All rows, one after the other.
  const float* values() const { return reinterpret_cast<const float*>(bytes_.data.get()); }

 private:
  facezoo::FileBytes bytes_;
  std::size_t rows_ = 0, columns_ = 0;
};

/// The names of the `rows` rows of `path`, none if it has no file of names.
/// @throws Failure if there are other than `rows`
std::vector<std::string> readNames(const std::string& path, std::size_t rows);
