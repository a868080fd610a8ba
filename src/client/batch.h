/// @file
/// What runs and measures a network: passes of one batch, time and memory.
#pragma once

#include "client/devices.h"
#include "facezoo/network.h"
#include "network_table.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace facezoo {

/// Runs from its construction on.
class Timer {
 public:
  double milliseconds() const {
    return std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

/// A line of the process's status: "VmRSS", now, or "VmHWM", at most. @throws Failure
long memoryKib(const std::string& field);
/// From now on "VmHWM" is about what follows, where the system allows that.
void resetPeakMemory();

/// The images and results of one call, in host memory and on the device.
class Batch {
 public:
  /// @param capacity the most images that it can hold, and holds at first
  /// @param asksNorm whether the network is asked for the norms, too
  /// @throws Failure if the device lacks the memory
  Batch(const NetworkTable& table, int capacity, bool asksNorm);

  int size() const { return size_; }
  /// How many images there are; at most the capacity.
  void resize(int size) { size_ = size; }

  std::size_t imageBytes() const { return imageBytes_; }
  /// Image `i` and what follows: height × width × channels interleaved bytes each.
  unsigned char* images(int i = 0) { return &images_[i * imageBytes_]; }
  /// The values of image `i`, `valueCount()` of them.
  const float* values(int i) const { return &values_[i * valueCount_]; }
  std::size_t valueCount() const { return valueCount_; }
  float norm(int i) const { return norms_[i]; }

  /// From images in host memory to results in host memory.
  void pass(Network& network) {
    upload();
    forward(network);
    download();
  }
  void upload();
  /// The results are where the network leaves them; on the device they may still be on their way.
  void forward(Network& network);
  void download();
  /// Returns when the device has done all that it was given.
  void wait();

 private:
  int size_;
  bool onDevice_;
  std::size_t imageBytes_, valueCount_;
  std::vector<unsigned char> images_;
  std::vector<float> values_, norms_;
  DeviceBuffer input_, output_;
};

}  // namespace facezoo
