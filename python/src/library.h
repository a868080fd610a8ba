/// @file
/// How the module calls the library: one thread at a time, while Python's other threads go on.
#pragma once

#include "GPU.h"
#include "errors.h"
#include "facezoo/listener.h"

#include <nanobind/nanobind.h>

#include <mutex>
#include <stdexcept>
#include <string>

/// Whether the process was forked from one that had used the library, which it must not touch then.
bool isForked();

/// Notes a call of the library that is about to begin, until it has returned to Python.
class Visit {
 public:
  /// Does not return once the interpreter ends, but on the thread that ends it: others would be
  /// stopped in the midst of the call. @throws PackageError if the process is forked
  Visit();
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;
  ~Visit();
};

/// Keeps the library's last line in place of printing it.
class LastLine : public facezoo::Listener {
 public:
  void onLine(const char* line) noexcept override { text = line; }
  std::string text;
};

/// Makes the library's device the current one of this thread, and then the former one again.
class CurrentDevice {
 public:
  CurrentDevice();
  CurrentDevice(const CurrentDevice&) = delete;
  CurrentDevice& operator=(const CurrentDevice&) = delete;
  ~CurrentDevice();
  int index() const { return chosen_; }

 private:
  int before_ = -1, chosen_ = -1;
};

/// Returns what work(line) does, which may call the library, but nothing of Python's. `line` is
/// where the library's last line is. @throws PackageError, facezoo::Failure, std::invalid_argument
template <class Work>
auto inLibrary(const Work& work) {
  const Visit visit;
  // The interpreter's lock is given back before the library's is waited for: who holds the latter
  // may need the former to return.
  const nanobind::gil_scoped_release release;
  const std::lock_guard lock(GPU::getMutex());
  LastLine line;
  try {
    return work(line.text);
  } catch (const facezoo::Failure&) {
    throw;
  } catch (const std::invalid_argument&) {
    throw;
  } catch (...) {
    throwPackageError(line.text);
  }
}
