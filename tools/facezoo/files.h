/// @file
#pragma once

#include "file_bytes.h"

#include <fstream>
#include <string>

/// @throws Failure unless there is a file at `path`, and no pipe or device, which might never end
void requireRegularFile(const std::string& path);

/// The whole of a regular file. @throws Failure
facezoo::FileBytes readFile(const std::string& path);

/// A file that appears under its name only when it is complete and on the disk. What had the name
/// before is replaced, so that another hard link to it keeps its contents; owner and permissions
/// are kept as far as they may be. What a symbolic link points to is replaced, not the link.
class NewFile {
 public:
  /// Opens a temporary file of a random name beside `path`, one that did not exist. @throws Failure
  explicit NewFile(const std::string& path);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  /// Removes the temporary file unless it was kept.
  ~NewFile();

  /// What cannot be written throws `Failure` at once.
  std::ostream& stream() { return stream_; }
  /// Ends writing. Returns the temporary file's name, by which it can be read until it is kept.
  /// @throws Failure if not everything could be written
  std::string close();
  /// Closes the file and replaces what had the name before. @throws Failure
  void keep();

 private:
  /// Knows why it cannot write while the reason is at hand.
  class Buffer : public std::filebuf {
   public:
    explicit Buffer(const std::string& name) : name_(name) {}

   protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* bytes, std::streamsize count) override;

   private:
    const std::string& name_;
  };

  std::string name_;           ///< as the user says it
  std::string path_;           ///< behind all links
  int file_ = -1;              ///< the temporary file, for what a stream cannot do
  char* temporary_ = nullptr;  ///< its name, where a signal handler finds it
  Buffer buffer_;
  std::ostream stream_;
};
