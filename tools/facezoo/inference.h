/// @file
#pragma once

#include "devices.h"
#include "network.h"
#include "network_table.h"

#include <cstddef>
#include <vector>

/// Passes of one network from bytes in host memory to results in host memory.
class Inference {
 public:
  /// @throws Failure if the device has no memory for the images and results of `maxBatch`
  Inference(Network& network, const facezoo::NetworkTable& table, int maxBatch);

  std::size_t imageBytes() const { return imageBytes_; }
  std::size_t resultCount() const { return resultCount_; }

  /// Where image `i` of the next batch goes: height × width × channels interleaved bytes.
  unsigned char* image(std::size_t i) { return &images_[i * imageBytes_]; }
  /// Runs the first `count` images. Their results stay until the next pass.
  /// @throws Failure if a copy fails, and what `Network::Forward` throws
  void run(std::size_t count);

  /// `resultCount()` values.
  const float* results(std::size_t i) const { return &results_[i * resultCount_]; }
  /// Of a network that has one.
  float norm(std::size_t i) const { return norms_[i]; }

 private:
  Network& network_;
  bool onDevice_;  ///< where the network leaves its results
  std::size_t imageBytes_, resultCount_;
  std::vector<unsigned char> images_;
  std::vector<float> results_, norms_;
  DeviceBuffer input_, output_;
};
