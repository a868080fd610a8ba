/// @file
#pragma once

#include "client/failure.h"

#include <memory>
#include <ostream>

/// The process that read standard output has ended, as `head` does after its last line.
class ReaderGone : public facezoo::Failure {
 public:
  ReaderGone() : facezoo::Failure("standard output: cannot be written: nobody reads it") {}
};

/// Gives `std::cout` a buffer that waits while a pipe is full, and throws if writing fails:
/// `ReaderGone`, or `Failure` with the reason. What its destructor finds unwritten is lost.
class StandardOutput {
 public:
  StandardOutput();
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;
  ~StandardOutput();

  /// Writes what is left. @throws as above, also for a failure that the system reports only when a
  /// file is closed
  void finish();

 private:
  class Buffer;
  std::unique_ptr<Buffer> buffer_;
  std::streambuf* before_;
};

/// Prints to `std::cout` as printf does to its stream. @throws what `StandardOutput` throws
[[gnu::format(printf, 1, 2)]] void print(const char* format, ...);
