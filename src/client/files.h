/// @file
#pragma once

#include "file_bytes.h"

#include <sys/stat.h>

#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace facezoo {

/// @throws Failure unless there is a file at `path`, and no pipe or device, which might never end
void requireRegularFile(const std::string& path);

/// The whole of a regular file. @throws Failure
FileBytes readFile(const std::string& path);

/// A place where `Outputs` has found that a file may be written.
class OutputPlace {
 public:
  const std::string& name() const { return name_; }  ///< as the user says it
  const std::string& path() const { return path_; }  ///< behind all links
  /// @throws Failure if a file is there that holds anything and may not be replaced
  void requireFree() const;
  /// Notes that the command itself has written the file, which it may replace.
  void own() { replaces_ = true; }

 private:
  friend class Outputs;
  std::string name_, path_;
  bool replaces_ = false;
};

/// The files that a command writes, which must be none of those that it reads.
class Outputs {
 public:
  /// @param inputs the files to be read; those that do not exist are ignored
  explicit Outputs(const std::vector<std::string>& inputs);

  /// Checks a place before anything is computed for it. Inputs are recognised by device and inode,
  /// under whatever name.
  /// @param replaces whether a file that is there and holds anything may be lost
  /// @throws Failure if it may not be lost, is an input, another output or no regular file
  OutputPlace claim(const std::string& path, bool replaces);

 private:
  std::set<std::pair<dev_t, ino_t>> inputs_;
  std::set<std::string> claimed_;
};

/// A file that appears under its name only when it is complete and on the disk. What had the name
/// before is replaced, so that another hard link to it keeps its contents; owner and permissions
/// are kept as far as they may be. What a symbolic link points to is replaced, not the link.
class NewFile {
 public:
  /// Opens a temporary file of a random name beside `place`, one that did not exist.
  /// @throws Failure
  explicit NewFile(OutputPlace place);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  /// Throws `Failure` as soon as something cannot be written.
  std::ostream& stream() { return stream_; }
  /// Ends writing. Returns the temporary file's name, by which it can be read until it is kept.
  /// @throws Failure if not everything could be written
  const char* close();
  /// Closes the file and replaces what had the name before. Once it is closed, that takes no
  /// memory, so that several files appear together. @throws Failure
  void keep();

 private:
  /// Removes the temporary file unless it was kept.
  struct Temporary {
    explicit Temporary(char* noted) : name(noted) {}
    Temporary(const Temporary&) = delete;
    Temporary& operator=(const Temporary&) = delete;
    ~Temporary();

    char* name;       ///< where a signal handler finds it; null once kept
    int handle = -1;  ///< for what a stream cannot do
  };
  /// Throws where writing fails, while `errno` still holds the reason.
  class Buffer : public std::filebuf {
   public:
    explicit Buffer(const std::string& name) : name_(name) {}

   protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* bytes, std::streamsize count) override;

   private:
    const std::string& name_;
  };

  OutputPlace place_;
  Temporary temporary_;
  Buffer buffer_;
  std::ostream stream_;
};

}  // namespace facezoo
