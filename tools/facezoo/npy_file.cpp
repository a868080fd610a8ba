#include "npy_file.h"

#include "client/failure.h"
#include "client/files.h"
#include "json_text.h"

#include <cstring>
#include <filesystem>
#include <regex>
#include <string_view>

using namespace facezoo;

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kMagic("\x93NUMPY", 6);

}  // namespace

std::string npyHeader(std::size_t rows, std::size_t columns) {
  constexpr std::size_t kSize = 128;  // data begin at a multiple of 64
  constexpr std::size_t kLead = 10;   // magic, version and length
  std::string header(kMagic);
  header += {'\x01', '\x00', static_cast<char>(kSize - kLead), '\x00'};
  header += "{'descr': '<f4', 'fortran_order': False, 'shape': (";
  header += std::to_string(rows) + ", " + std::to_string(columns) + "), }";
  header.resize(kSize - 1, ' ');
  return header + '\n';
}

std::string namesFileOf(const std::string& path) {
  return fs::path(path).replace_extension(".names.jsonl").string();
}

NpyRows::NpyRows(const std::string& path) : bytes_(readFile(path)) {
  const std::string_view file(bytes_.data.get(), bytes_.size);
  constexpr std::size_t kLead = 8, kLongest = 10000;
  if (file.size() < kLead + 4 || file.substr(0, kMagic.size()) != kMagic)
    throw Failure(path + ": expected a NumPy array, found something else");
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(file[i]); };
  if (byte(6) < 1 || byte(6) > 3) {
    throw Failure(path + ": expected version 1 to 3 of the NumPy format, found " +
                  std::to_string(byte(6)));
  }
  const std::size_t sizeBytes = byte(6) == 1 ? 2 : 4;
  std::size_t size = 0;
  for (std::size_t i = sizeBytes; i-- > 0;) size = size << 8 | byte(kLead + i);
  const std::size_t start = kLead + sizeBytes + size;
  if (size > kLongest || start > file.size())
    throw Failure(path + ": expected a NumPy header of at most 10000 bytes, found no end of it");

  const std::string header(file.substr(kLead + sizeBytes, size));
  static const std::regex form(
      R"(\{ *'descr' *: *'([^']*)' *, *'fortran_order' *: *(True|False) *, *)"
      R"('shape' *: *\(([0-9]{0,18})(?:, *([0-9]{1,18}))?,? *\) *,? *\}[ \n]*)");
  std::smatch found;
  if (!std::regex_match(header, found, form) || found[1] != "<f4" || found[2] != "False" ||
      !found[4].matched) {
    throw Failure(path + ": expected a NumPy array of type '<f4' in C order, of two dimensions, " +
                  "found the header " + header.substr(0, 100));
  }
  rows_ = std::stoull(found[3].str().empty() ? "0" : found[3].str());
  columns_ = std::stoull(found[4]);
  const std::size_t bytes = file.size() - start, values = bytes / sizeof(float);
  if (columns_ == 0 || rows_ == 0 || bytes % sizeof(float) != 0 || values % columns_ != 0 ||
      values / columns_ != rows_) {
    throw Failure(path + ": expected " + found[3].str() + " x " + found[4].str() +
                  " values, one at least, found " + std::to_string(bytes) + " bytes");
  }
  std::memmove(bytes_.data.get(), file.data() + start, bytes);
}

std::vector<std::string> readNames(const std::string& path, std::size_t rows) {
  const std::string file = namesFileOf(path);
  std::error_code error;
  if (!fs::exists(file, error)) return {};
  const FileBytes bytes = readFile(file);
  std::string_view text(bytes.data.get(), bytes.size);
  std::vector<std::string> names;
  while (!text.empty()) {
    const std::size_t length = std::min(text.find('\n'), text.size());
    try {
      names.push_back(fromJsonString(text.substr(0, length)));
    } catch (const Failure& failure) {
      throw Failure(file + ": line " + std::to_string(names.size() + 1) + ": " + failure.what());
    }
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  if (names.size() == rows) return names;
  throw Failure(file + ": expected a name for each of the " + std::to_string(rows) + " rows of " +
                path + ", found " + std::to_string(names.size()));
}
