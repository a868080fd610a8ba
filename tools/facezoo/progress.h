/// @file
#pragma once

#include <sys/types.h>

#include <cstddef>

/// Shows on standard error how far a long command is, its rate and the time left: pv(1) counts the
/// lines that it gets through a pipe.
class Progress {
 public:
  /// @param shown whether to show anything; if not, all members do nothing
  Progress(std::size_t total, bool shown);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// Waits until the last state is on the screen.
  ~Progress();

  void add(std::size_t count);

 private:
  int pipe_ = -1;
  pid_t pv_ = -1;
};
