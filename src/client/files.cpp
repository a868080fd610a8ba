#include "client/files.h"

#include "client/failure.h"
#include "client/temporaries.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <random>
#include <system_error>

namespace facezoo {

namespace fs = std::filesystem;

namespace {

void requireName(const std::string& path) {
  if (path.empty()) throw Failure("expected a file name, found an empty argument");
}

[[noreturn]] void refuse(const std::string& path) {
  throwSystemFailure(path + ": cannot be written");
}

/// A name in the folder of `path` that nobody can foresee, and short enough however long that of
/// `path` is.
std::string temporaryBeside(const fs::path& path) {
  constexpr char digits[] = "0123456789abcdefghijklmnopqrstuv";
  std::random_device device;
  std::string name = "facezoo-";
  for (int i = 0; i < 12; ++i) name += digits[device() % 32];
  return (path.parent_path() / (name + ".part")).string();
}

/// Gives `file` the owner and permissions of the file at `path`, which it is to replace.
void copyOwnership(const std::string& path, int file) {
  struct stat before;
  if (stat(path.c_str(), &before) != 0) return;
  // Only root may change the owner; for others it is no failure that they cannot.
  if (fchown(file, before.st_uid, before.st_gid) != 0) errno = 0;
  if (fchmod(file, before.st_mode & 0777) != 0) errno = 0;
}

/// Device and inode of a file; no value if it does not exist.
std::optional<std::pair<dev_t, ino_t>> identityOf(const std::string& path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return {};
  return std::pair(status.st_dev, status.st_ino);
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

FileBytes readFile(const std::string& path) {
  requireRegularFile(path);
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  FileBytes bytes;
  if (file) bytes = readAll(file, path.c_str());
  if (!file.is_open() || file.bad()) throwSystemFailure(path + ": cannot be read");
  return bytes;
}

Outputs::Outputs(const std::vector<std::string>& inputs) {
  for (const std::string& path : inputs)
    if (const auto identity = identityOf(path)) inputs_.insert(*identity);
}

OutputPlace Outputs::claim(const std::string& path, bool replaces) {
  requireName(path);
  std::error_code error;
  OutputPlace place;
  place.name_ = place.path_ = path;
  place.replaces_ = replaces;
  if (fs::is_symlink(path, error)) {
    if (!fs::exists(path, error)) throw Failure(path + ": is a link to nothing");
    place.path_ = fs::weakly_canonical(path, error).string();
  }
  const fs::file_status status = fs::status(place.path_, error);
  if (fs::is_directory(status)) throw Failure(path + ": expected a file name, found a directory");
  if (fs::exists(status) && !fs::is_regular_file(status))
    throw Failure(path + ": exists and is not a regular file");
  if (const auto found = identityOf(place.path_); found && inputs_.count(*found) > 0)
    throw Failure(path + ": is to be read, and would be replaced");
  const fs::path whole = fs::weakly_canonical(fs::absolute(place.path_, error), error);
  if (!claimed_.insert(error ? path : whole.string()).second)
    throw Failure(path + ": would be written twice");
  place.requireFree();
  return place;
}

void OutputPlace::requireFree() const {
  struct stat found = {};
  if (!replaces_ && stat(path_.c_str(), &found) == 0 && found.st_size > 0)
    throw Failure(name_ + ": expected no such file, found one; --force replaces it");
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

NewFile::Temporary::~Temporary() {
  if (name != nullptr) {
    if (handle >= 0) unlink(name);
    name[0] = '\0';
  }
  if (handle >= 0) ::close(handle);
}

NewFile::NewFile(OutputPlace place)
    : place_(std::move(place)),
      temporary_(noteTemporary(temporaryBeside(place_.path()))),
      buffer_(place_.name()),
      stream_(&buffer_) {
  stream_.exceptions(std::ios::badbit | std::ios::failbit);  // passes on what the buffer throws
  errno = 0;
  // Until it replaces another file and gets its permissions, only the owner may read it.
  const mode_t mode = identityOf(place_.path()) ? 0600 : 0666;
  temporary_.handle = open(temporary_.name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (temporary_.handle < 0 ||
      buffer_.open(temporary_.name, std::ios::out | std::ios::binary) == nullptr)
    refuse(place_.name());
}

const char* NewFile::close() {
  errno = 0;
  if (buffer_.is_open() && buffer_.close() == nullptr) refuse(place_.name());
  // Some file systems have nothing to synchronize.
  if (fsync(temporary_.handle) != 0 && errno != EINVAL && errno != ENOSYS) refuse(place_.name());
  return temporary_.name;
}

void NewFile::keep() {
  close();
  place_.requireFree();  // a file may have appeared there meanwhile
  copyOwnership(place_.path(), temporary_.handle);
  if (std::rename(temporary_.name, place_.path().c_str()) != 0) refuse(place_.name());
  temporary_.name[0] = '\0';
  temporary_.name = nullptr;  // the entry may be of another file from now on
}

}  // namespace facezoo
