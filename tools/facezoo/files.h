/// @file
#pragma once

#include "file_bytes.h"

#include <fstream>
#include <string>

/// The whole of a regular file. @throws Failure
facezoo::FileBytes readFile(const std::string& path);

/// `text` with its control characters replaced, so that a name from a file cannot break a line or
/// steer the terminal.
std::string printable(std::string text);

/// A file that appears under its name only when it is complete.
class NewFile {
 public:
  /// Opens a temporary file beside `path`. @throws Failure
  explicit NewFile(const std::string& path);
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;
  /// Removes the temporary file unless it was kept.
  ~NewFile();

  std::ostream& stream() { return stream_; }
  /// Replaces what had the name before. @throws Failure if not everything could be written
  void keep();

 private:
  std::string path_;
  std::string temporary_;
  std::ofstream stream_;
};
