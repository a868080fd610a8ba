/// @file
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <string>
#include <vector>

namespace facezoo {

/// @throws Failure that says which call failed and why
void checkCall(cudaError_t status, const std::string& call);

struct Device {
  cudaDeviceProp properties;
  std::string shortcoming;  ///< why the library cannot use it; empty if it can
};

/// All devices, in the order in which the library probes them. @throws Failure
std::vector<Device> listDevices();

/// Index of the device that the library chooses. @throws Failure if there is none
std::size_t chosenDevice(const std::vector<Device>& devices);

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
