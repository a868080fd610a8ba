#include "files.h"

#include "endings.h"
#include "failure.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <random>
#include <system_error>

namespace fs = std::filesystem;

namespace {

std::string reason(int error) { return std::generic_category().message(error); }

void requireName(const std::string& path) {
  if (path.empty()) throw Failure("expected a file name, found an empty argument");
}

[[noreturn]] void refuse(const std::string& path) {
  throw Failure(path + ": cannot be written: " + reason(errno));
}

/// A name in the folder of `path` that nobody can foresee, short enough beside any other.
std::string temporaryBeside(const fs::path& path) {
  constexpr char digits[] = "0123456789abcdefghijklmnopqrstuv";
  std::random_device device;
  std::string name = "facezoo-";
  for (int i = 0; i < 12; ++i) name += digits[device() % 32];
  return (path.parent_path() / (name + ".part")).string();
}

/// Gives `file` the owner and permissions of the one whose place it takes, if there is one.
void takeOver(const std::string& path, int file) {
  struct stat before;
  if (stat(path.c_str(), &before) != 0) return;
  // Only root may change the owner, who has more to lose than to gain by failing here.
  if (fchown(file, before.st_uid, before.st_gid) != 0) errno = 0;
  if (fchmod(file, before.st_mode & 0777) != 0) errno = 0;
}

}  // namespace

void requireRegularFile(const std::string& path) {
  requireName(path);
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) throw Failure(path + ": cannot be read: " + error.message());
  if (fs::is_directory(status)) throw Failure(path + ": expected a file, found a directory");
  if (!fs::is_regular_file(status)) throw Failure(path + ": expected a regular file");
}

facezoo::FileBytes readFile(const std::string& path) {
  requireRegularFile(path);
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  facezoo::FileBytes bytes;
  if (file) bytes = facezoo::readAll(file, path.c_str());
  if (!file.is_open() || file.bad()) throw Failure(path + ": cannot be read: " + reason(errno));
  return bytes;
}

NewFile::Buffer::int_type NewFile::Buffer::overflow(int_type c) {
  errno = 0;
  const int_type result = std::filebuf::overflow(c);
  if (traits_type::eq_int_type(result, traits_type::eof())) refuse(name_);
  return result;
}

std::streamsize NewFile::Buffer::xsputn(const char* bytes, std::streamsize count) {
  errno = 0;
  if (std::filebuf::xsputn(bytes, count) != count) refuse(name_);
  return count;
}

NewFile::NewFile(const std::string& path) : name_(path), buffer_(name_), stream_(&buffer_) {
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
  temporary_ = noteTemporary(temporaryBeside(path_));
  stream_.exceptions(std::ios::badbit | std::ios::failbit);  // passes on what the buffer throws
  errno = 0;
  // A file that takes the place of another may not be read by more than that one until it does.
  const mode_t mode = fs::exists(status) ? 0600 : 0666;
  file_ = open(temporary_, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (file_ >= 0 && buffer_.open(temporary_, std::ios::out | std::ios::binary) != nullptr) return;
  const int why = errno;
  if (file_ >= 0) unlink(temporary_);
  if (file_ >= 0) ::close(file_);
  temporary_[0] = '\0';
  errno = why;
  refuse(name_);
}

NewFile::~NewFile() {
  ::close(file_);
  if (temporary_ == nullptr) return;
  unlink(temporary_);
  temporary_[0] = '\0';
}

std::string NewFile::close() {
  errno = 0;
  if (buffer_.is_open() && buffer_.close() == nullptr) refuse(name_);
  // Some file systems have nothing to synchronize.
  if (fsync(file_) != 0 && errno != EINVAL && errno != ENOSYS) refuse(name_);
  return temporary_;
}

void NewFile::keep() {
  close();
  takeOver(path_, file_);
  std::error_code error;
  fs::rename(temporary_, path_, error);
  if (error) throw Failure(name_ + ": cannot be written: " + error.message());
  temporary_[0] = '\0';
  temporary_ = nullptr;
}
