/// @file
#pragma once

#include <cstdio>

/// Keeps the library's own lines off standard error, where the tool says one line of its own. With
/// glibc stdio's streams are variables; what is written past stdio, as by a sanitizer, still shows.
class QuietLibrary {
 public:
  QuietLibrary() {
    if (nowhere_ != nullptr) stderr = nowhere_;
  }
  QuietLibrary(const QuietLibrary&) = delete;
  QuietLibrary& operator=(const QuietLibrary&) = delete;
  ~QuietLibrary() {
    stderr = saved_;
    if (nowhere_ != nullptr) std::fclose(nowhere_);
  }

 private:
  std::FILE* saved_ = stderr;
  std::FILE* nowhere_ = std::fopen("/dev/null", "w");
};
