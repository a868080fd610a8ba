#include "npy_file.h"

NpyFile::NpyFile(const std::string& path, std::size_t columns) : file_(path), columns_(columns) {
  writeHeader();
}

void NpyFile::add(const float* row) {
  file_.stream().write(reinterpret_cast<const char*>(row),
                       static_cast<std::streamsize>(columns_ * sizeof(float)));
  ++rows_;
}

void NpyFile::keep() {
  file_.stream().seekp(0);
  writeHeader();
  file_.keep();
}

// The number of rows is known at the end, so the header has the same length whatever it is.
void NpyFile::writeHeader() {
  constexpr std::size_t kSize = 128;  // data begin at a multiple of 64
  constexpr std::size_t kLead = 10;   // magic, version and length
  std::string header("\x93NUMPY\x01\x00", 8);
  header += static_cast<char>(kSize - kLead);
  header += '\0';
  header += "{'descr': '<f4', 'fortran_order': False, 'shape': (";
  header += std::to_string(rows_) + ", " + std::to_string(columns_) + "), }";
  header.resize(kSize - 1, ' ');
  header += '\n';
  file_.stream().write(header.data(), kSize);
}
