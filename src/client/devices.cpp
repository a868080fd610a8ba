#include "client/devices.h"

#include "device_requirement.h"

#include <algorithm>

namespace facezoo {

void checkCall(cudaError_t status, const std::string& call) {
  if (status == cudaSuccess) return;
  throw DeviceFailure(call + ": " + cudaGetErrorString(status) + " (CUDA error " +
                          std::to_string(static_cast<int>(status)) + ")",
                      status);
}

std::vector<Device> listDevices() {
  int count = 0;
  checkCall(cudaGetDeviceCount(&count), "no usable CUDA driver or device");
  std::vector<Device> devices(count);
  for (int i = 0; i < count; ++i) {
    cudaDeviceProp& properties = devices[i].properties;
    checkCall(cudaGetDeviceProperties(&properties, i), "properties of device " + std::to_string(i));
    if (properties.major < requiredMajor) {
      devices[i].shortcoming = "compute capability below " + std::to_string(requiredMajor) + ".0";
    } else if (properties.totalGlobalMem >> 20 < requiredMiB) {
      devices[i].shortcoming = "less than " + std::to_string(requiredMiB) + " MiB";
    }
  }
  return devices;
}

std::size_t chosenDevice(const std::vector<Device>& devices) {
  const auto chosen = std::find_if(devices.begin(), devices.end(),
                                   [](const Device& d) { return d.shortcoming.empty(); });
  if (chosen != devices.end()) return chosen - devices.begin();
  throw Failure(
      "no usable CUDA device: expected compute capability " + std::to_string(requiredMajor) +
      ".0 and " + std::to_string(requiredMiB) + " MiB, found " +
      (devices.empty() ? "no device" : std::to_string(devices.size()) + " device(s) with less"));
}

// The default stream works in order, so that a copy to the host returns when all before it is done.
void waitForDevice(const void* memory) {
  char first = 0;
  checkCall(cudaMemcpy(&first, memory, 1, cudaMemcpyDeviceToHost), "wait for the device");
}

}  // namespace facezoo
