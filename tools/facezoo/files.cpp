#include "files.h"

#include "failure.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace {

std::string reason(int error) { return std::generic_category().message(error); }

void requireName(const std::string& path) {
  if (path.empty()) throw Failure("expected a file name, found an empty argument");
}

}  // namespace

facezoo::FileBytes readFile(const std::string& path) {
  requireName(path);
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) throw Failure(path + ": cannot be read: " + error.message());
  if (fs::is_directory(status)) throw Failure(path + ": expected a file, found a directory");
  if (!fs::is_regular_file(status)) throw Failure(path + ": expected a regular file");
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  facezoo::FileBytes bytes;
  if (file) bytes = facezoo::readAll(file, path.c_str());
  if (!file.is_open() || file.bad()) throw Failure(path + ": cannot be read: " + reason(errno));
  return bytes;
}

std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
  return text;
}

NewFile::NewFile(const std::string& path) {
  requireName(path);
  std::error_code error;
  // Renaming would put a file in the place of a link or a device, not behind it.
  if (fs::is_symlink(fs::symlink_status(path, error)) && !fs::exists(path, error)) {
    throw Failure(path + ": is a link to nothing");
  }
  path_ = fs::weakly_canonical(path, error).string();
  const fs::file_status status = fs::status(path_, error);
  if (fs::is_directory(status)) throw Failure(path + ": expected a file name, found a directory");
  if (fs::exists(status) && !fs::is_regular_file(status))
    throw Failure(path + ": exists and is not a regular file");
  temporary_ = path_ + "." + std::to_string(getpid()) + ".part";
  errno = 0;
  stream_.open(temporary_, std::ios::binary);
  if (!stream_) throw Failure(path + ": cannot be written: " + reason(errno));
}

NewFile::~NewFile() {
  std::error_code ignored;
  if (!temporary_.empty()) fs::remove(temporary_, ignored);
}

void NewFile::keep() {
  errno = 0;
  stream_.close();
  if (!stream_) throw Failure(path_ + ": cannot be written: " + reason(errno));
  std::error_code error;
  fs::rename(temporary_, path_, error);
  if (error) throw Failure(path_ + ": cannot be written: " + error.message());
  temporary_.clear();
}
