/// @file
/// What is measured of a network, and with what: passes of one batch, time and memory.
#pragma once

#include "devices.h"
#include "network.h"
#include "network_table.h"

#include <chrono>
#include <string>
#include <vector>

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
  /// @param withNorm whether `forward` asks for the norms, too
  Batch(const facezoo::NetworkTable& table, int size, bool withNorm);

  int size() const { return size_; }
  std::vector<unsigned char>& images() { return images_; }
  const std::vector<float>& results() const { return results_; }

  void upload();
  /// The results are where the network leaves them; on the device they may still be on their way.
  void forward(Network& network);
  void download();
  /// Returns when the device has done all that it was given.
  void wait();

 private:
  int size_;
  bool onDevice_;
  std::vector<unsigned char> images_;
  std::vector<float> results_, norms_;
  DeviceBuffer input_, output_;
};
