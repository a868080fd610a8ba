#include "GPU.h"
#include "check.h"
#include "device_requirement.h"
#include "facezoo/listener.h"

#include <cuda_runtime.h>

#include <iostream>

int GPU::DeviceID = -1;
std::recursive_mutex GPU::mtx;

GPU::GPU() {
  if (DeviceID >= 0) return;
  int count = 0;
  CheckCuda(cudaGetDeviceCount(&count));
  for (int i = 0; i < count; ++i) {
    CheckCuda(cudaSetDevice(i));
    cudaDeviceProp properties;
    CheckCuda(cudaGetDeviceProperties(&properties, i));
    if (properties.major >= facezoo::requiredMajor &&
        properties.totalGlobalMem >> 20 >= facezoo::requiredMiB) {
      DeviceID = i;
      return;
    }
  }
  constexpr const char* line = "There are no available devices that support CUDA";
  if (facezoo::Listener* const listener = facezoo::listener()) {
    listener->onLine(line);
  } else {
    std::cerr << line << std::endl;
  }
  throw NO_SUITABLE_DEVICE;
}

int GPU::getDeviceID() { return DeviceID; }

std::recursive_mutex& GPU::getMutex() { return mtx; }
