/// @file
#pragma once

#include "client/failure.h"

#include <cuda_runtime.h>

#include <cstddef>
#include <string>
#include <vector>

namespace facezoo {

/// A call to the CUDA runtime failed.
class DeviceFailure : public Failure {
 public:
  DeviceFailure(const std::string& text, cudaError_t status) : Failure(text), status_(status) {}
  cudaError_t status() const { return status_; }

 private:
  cudaError_t status_;
};

/// @throws DeviceFailure that says which call failed and why
void checkCall(cudaError_t status, const std::string& call);

struct Device {
  cudaDeviceProp properties;
  std::string shortcoming;  ///< why the library cannot use it; empty if it can
};

/// All devices, in the order in which the library probes them. @throws Failure
std::vector<Device> listDevices();

/// Index of the device that the library chooses. @throws Failure if there is none
std::size_t chosenDevice(const std::vector<Device>& devices);

/// Returns when the device has finished all work.
/// @param memory one byte or more of the device's
void waitForDevice(const void* memory);

/// Owns a block of device memory.
class DeviceBuffer {
 public:
  explicit DeviceBuffer(std::size_t bytes) {
    checkCall(cudaMalloc(&data_, bytes), "allocation of " + std::to_string(bytes) + " bytes");
  }
  DeviceBuffer(const DeviceBuffer&) = delete;
  DeviceBuffer& operator=(const DeviceBuffer&) = delete;
  ~DeviceBuffer() { cudaFree(data_); }

  void* data() { return data_; }

 private:
  void* data_ = nullptr;
};

}  // namespace facezoo
