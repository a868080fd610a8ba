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

/// Measures the time since its construction.
class Timer {
 public:
  double milliseconds() const {
    return std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
  }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start_ = Clock::now();
};

/// The resident memory of the process in KiB, of a field of its status: "VmRSS" for what it is now,
/// "VmHWM" for its peak. @throws Failure
long memoryKib(const std::string& field);
/// Lets the peak "VmHWM" begin anew, if the system allows it.
void resetPeakMemory();

/// The images and results of one call, in host memory and on the device.
class Batch {
 public:
  /// @param capacity the most images that it can hold, and holds at first
  /// @param asksNorm whether the network is to compute the norms, too
  /// @throws Failure if the device lacks the memory
  Batch(const NetworkTable& table, int capacity, bool asksNorm);

  int size() const { return size_; }
  /// How many images there are; at most the capacity.
  void resize(int size) { size_ = size; }

  std::size_t imageBytes() const { return imageBytes_; }
  /// Image `i` and those behind it: height × width × channels interleaved bytes each.
  unsigned char* images(int i = 0) { return &images_[i * imageBytes_]; }
  /// The values of image `i`, `valueCount()` of them.
  const float* values(int i) const { return &values_[i * valueCount_]; }
  std::size_t valueCount() const { return valueCount_; }
  float norm(int i) const { return norms_[i]; }

  void pass(Network& network) {
    upload();
    forward(network);
    download();
  }
  void upload();
  /// Leaves the results where the network writes them; on the device they may not be complete yet.
  void forward(Network& network);
  void download();
  /// Returns when the device has finished all work.
  void wait() { waitForDevice(input_.data()); }

 private:
  int size_;
  bool onDevice_;
  std::size_t imageBytes_, valueCount_;
  std::vector<unsigned char> images_;
  std::vector<float> values_, norms_;
  DeviceBuffer input_, output_;
};

}  // namespace facezoo
