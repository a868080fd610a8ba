/// @file
#pragma once

#include "client/failure.h"

#include <memory>
#include <ostream>

/// Who read standard output is gone, as `head` is when it has seen enough.
class ReaderGone : public facezoo::Failure {
 public:
  ReaderGone() : facezoo::Failure("standard output: cannot be written: nobody reads it") {}
};

/// Puts a buffer behind `std::cout` that waits where nothing can be written yet, and throws where
/// nothing will: `ReaderGone`, or `Failure` with the reason. What is in it at its end is lost.
class StandardOutput {
 public:
  StandardOutput();
  StandardOutput(const StandardOutput&) = delete;
  StandardOutput& operator=(const StandardOutput&) = delete;
  ~StandardOutput();

  /// Writes what is left. @throws as above, also of what the system has put off until the end
  void finish();

 private:
  class Buffer;
  std::unique_ptr<Buffer> buffer_;
  std::streambuf* before_;
};

/// Prints to `std::cout` as printf does to its stream. @throws what `StandardOutput` throws
[[gnu::format(printf, 1, 2)]] void print(const char* format, ...);
