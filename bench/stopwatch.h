/// @file
#pragma once

#if FACEZOO_SIMULATED

#include <chrono>

/// Measures calls to a simulated device, whose work is done when a call returns.
class Stopwatch {
 public:
  void start() { start_ = std::chrono::steady_clock::now(); }
  /// Milliseconds since `start`.
  double stop() const {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_)
        .count();
  }

 private:
  std::chrono::steady_clock::time_point start_;
};

#else

#include "client/devices.h"

/// Measures the work of a card's default stream, which `start` lets become idle first.
class Stopwatch {
 public:
  Stopwatch() {
    facezoo::checkCall(cudaEventCreate(&start_), "creation of an event");
    facezoo::checkCall(cudaEventCreate(&stop_), "creation of an event");
  }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;
  ~Stopwatch() {
    cudaEventDestroy(start_);
    cudaEventDestroy(stop_);
  }

  void start() {
    facezoo::checkCall(cudaDeviceSynchronize(), "wait for the device");
    facezoo::checkCall(cudaEventRecord(start_, nullptr), "record of an event");
  }
  /// Milliseconds since `start`, once all is done.
  double stop() {
    float milliseconds = 0;
    facezoo::checkCall(cudaEventRecord(stop_, nullptr), "record of an event");
    facezoo::checkCall(cudaEventSynchronize(stop_), "wait for an event");
    facezoo::checkCall(cudaEventElapsedTime(&milliseconds, start_, stop_), "time between events");
    return milliseconds;
  }

 private:
  cudaEvent_t start_ = nullptr, stop_ = nullptr;
};

#endif
