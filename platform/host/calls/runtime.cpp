#include "device_code.h"
#include "host_device.h"
#include "instrumentation.h"
#include "kernels/parallel.h"
#include "memory/device_memory.h"
#include "operands.h"
#include "simulated_devices.h"

#include <unistd.h>

#include <cstring>
#include <mutex>
#include <utility>

namespace host_device {
namespace {

/// This machine as one device. 5.0 is the lowest compute capability that is ever asked for.
SimulatedDevice thisMachine() {
  const std::size_t memory =
      static_cast<std::size_t>(sysconf(_SC_PHYS_PAGES)) * sysconf(_SC_PAGE_SIZE);
  return {"host CPU", 5, 0, memory};
}

struct DeviceTable {
  std::mutex mutex;
  std::vector<SimulatedDevice> devices{thisMachine()};
};

DeviceTable& table() {
  static DeviceTable& instance = *new DeviceTable;
  return instance;
}

thread_local std::size_t current = 0;
thread_local cudaError_t lastError = cudaSuccess;
thread_local LaunchGeometry runningLaunch;

int deviceCount() {
  const std::lock_guard<std::mutex> lock(table().mutex);
  return static_cast<int>(table().devices.size());
}

bool fromDevice(cudaMemcpyKind kind) {
  return kind == cudaMemcpyDeviceToHost || kind == cudaMemcpyDeviceToDevice;
}
bool toDevice(cudaMemcpyKind kind) {
  return kind == cudaMemcpyHostToDevice || kind == cudaMemcpyDeviceToDevice;
}

/// Whether `bytes` bytes may be copied as `kind` says; declares the write if so.
bool mayCopy(void* destination, const void* source, std::size_t bytes, cudaMemcpyKind kind) {
  if (destination == nullptr || source == nullptr || kind < cudaMemcpyHostToHost ||
      kind > cudaMemcpyDeviceToDevice) {
    return false;
  }
  const bool readable = fromDevice(kind) ? isDevice(source, bytes) : !touchesDevice(source, bytes);
  if (!readable) return false;
  return toDevice(kind) ? writeDevice(destination, bytes) : !touchesDevice(destination, bytes);
}

/// Copies `height` rows of `width` bytes that do not overlap.
void copyRows(void* destination, std::size_t destinationPitch, const void* source,
              std::size_t sourcePitch, std::size_t width, std::size_t height) {
  constexpr std::size_t piece = 65536;
  const std::size_t pieces = dividedUp(width, piece);
  auto* const to = static_cast<char*>(destination);
  const auto* const from = static_cast<const char*>(source);
  const auto copy = [=](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      const std::size_t row = i / pieces, start = i % pieces * piece;
      std::memcpy(to + row * destinationPitch + start, from + row * sourcePitch + start,
                  std::min(piece, width - start));
    }
  };
  forRanges(pieces * height, std::min(width, piece) / sizeof(float), copy);
}

}  // namespace

std::size_t currentDevice() { return current; }

std::size_t deviceMemory(std::size_t device) {
  const std::lock_guard<std::mutex> lock(table().mutex);
  return device < table().devices.size() ? table().devices[device].totalGlobalMem : 0;
}

void setLastError(cudaError_t status) { lastError = status; }

void setDevices(std::vector<SimulatedDevice> devices) {
  const std::lock_guard<std::mutex> lock(table().mutex);
  table().devices = std::move(devices);
  current = 0;
}

void restoreDefaultDevices() { setDevices({thisMachine()}); }

const LaunchGeometry& currentLaunch() { return runningLaunch; }

}  // namespace host_device

using namespace host_device;

cudaError_t cudaGetDeviceCount(int* count) {
  return enter("cudaGetDeviceCount", {}, [&] {
    if (count == nullptr) return cudaErrorInvalidValue;
    *count = deviceCount();
    return cudaSuccess;
  });
}

cudaError_t cudaGetDevice(int* device) {
  return enter("cudaGetDevice", {}, [&] {
    if (device == nullptr) return cudaErrorInvalidValue;
    *device = static_cast<int>(current);
    return cudaSuccess;
  });
}

cudaError_t cudaSetDevice(int device) {
  return enter("cudaSetDevice", {device}, [&] {
    if (device < 0 || device >= deviceCount()) return cudaErrorInvalidDevice;
    current = static_cast<std::size_t>(device);
    return cudaSuccess;
  });
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device) {
  return enter("cudaGetDeviceProperties", {device}, [&] {
    if (properties == nullptr) return cudaErrorInvalidValue;
    const std::lock_guard<std::mutex> lock(table().mutex);
    if (device < 0 || static_cast<std::size_t>(device) >= table().devices.size()) {
      return cudaErrorInvalidDevice;
    }
    const SimulatedDevice& shown = table().devices[static_cast<std::size_t>(device)];
    *properties = {};
    shown.name.copy(properties->name, sizeof properties->name - 1);
    properties->totalGlobalMem = shown.totalGlobalMem;
    properties->major = shown.major;
    properties->minor = shown.minor;
    return cudaSuccess;
  });
}

cudaError_t cudaRuntimeGetVersion(int* version) {
  recordReport("cudaRuntimeGetVersion");
  if (version == nullptr) return cudaErrorInvalidValue;
  *version = 10010;
  return cudaSuccess;
}

// The real call says 0 where there is no driver.
cudaError_t cudaDriverGetVersion(int* version) {
  recordReport("cudaDriverGetVersion");
  if (version == nullptr) return cudaErrorInvalidValue;
  *version = 0;
  return cudaSuccess;
}

cudaError_t cudaGetLastError() {
  recordReport("cudaGetLastError");
  return std::exchange(lastError, cudaSuccess);
}

const char* cudaGetErrorString(cudaError_t status) {
  recordReport("cudaGetErrorString");
  constexpr struct {
    cudaError_t status;
    const char* text;
  } known[] = {
      {cudaSuccess, "no error"},
      {cudaErrorInvalidValue, "invalid argument"},
      {cudaErrorMemoryAllocation, "out of memory"},
      {cudaErrorInitializationError, "initialization error"},
      {cudaErrorInvalidConfiguration, "invalid configuration argument"},
      {cudaErrorInvalidDeviceFunction, "invalid device function"},
      {cudaErrorNoDevice, "no CUDA-capable device is detected"},
      {cudaErrorInvalidDevice, "invalid device ordinal"},
      {cudaErrorLaunchFailure, "unspecified launch failure"},
      {cudaErrorUnknown, "unknown error"},
  };
  for (const auto& entry : known) {
    if (entry.status == status) return entry.text;
  }
  return "unrecognized error code";
}

cudaError_t cudaMalloc(void** pointer, size_t bytes) {
  return enter("cudaMalloc", {static_cast<std::int64_t>(bytes)},
               [&] { return allocateDevice(pointer, bytes); });
}

cudaError_t cudaFree(void* pointer) {
  return enter("cudaFree", {}, [&] { return freeDevice(pointer); });
}

cudaError_t cudaMemGetInfo(size_t* free, size_t* total) {
  return enter("cudaMemGetInfo", {}, [&] {
    if (free == nullptr || total == nullptr) return cudaErrorInvalidValue;
    *total = deviceMemory(current);
    *free = *total - std::min(*total, usedMemory(current));
    return cudaSuccess;
  });
}

cudaError_t cudaMemset(void* pointer, int value, size_t bytes) {
  return enter("cudaMemset", {value, static_cast<std::int64_t>(bytes)}, [&] {
    if (!writeDevice(pointer, bytes)) return cudaErrorInvalidValue;
    if (value == 0 && zeroUntouched(pointer, bytes)) return cudaSuccess;
    // The first touch of fresh memory takes longer than filling it, and threads can share it.
    constexpr std::size_t piece = std::size_t{256} << 10;
    auto* const start = static_cast<char*>(pointer);
    forRanges(
        dividedUp(bytes, piece), piece / sizeof(float), [=](std::size_t begin, std::size_t end) {
          std::memset(start + begin * piece, value, std::min(bytes, end * piece) - begin * piece);
        });
    return cudaSuccess;
  });
}

cudaError_t cudaMemcpy(void* destination, const void* source, size_t bytes, cudaMemcpyKind kind) {
  return enter("cudaMemcpy", {static_cast<std::int64_t>(bytes), kind}, [&] {
    if (bytes == 0) return cudaSuccess;
    if (!mayCopy(destination, source, bytes, kind)) return cudaErrorInvalidValue;
    if (overlap(destination, bytes, source, bytes)) {
      std::memmove(destination, source, bytes);
    } else {
      copyRows(destination, bytes, source, bytes, bytes, 1);
    }
    return cudaSuccess;
  });
}

cudaError_t cudaMemcpy2D(void* destination, size_t destinationPitch, const void* source,
                         size_t sourcePitch, size_t width, size_t height, cudaMemcpyKind kind) {
  return enter(
      "cudaMemcpy2D", {static_cast<std::int64_t>(width), static_cast<std::int64_t>(height), kind},
      [&] {
        if (width == 0 || height == 0) return cudaSuccess;
        if (width > destinationPitch || width > sourcePitch) return cudaErrorInvalidValue;
        // Checked row by row: the gaps between rows belong to the copy of neither side.
        for (size_t row = 0; row < height; ++row) {
          if (!mayCopy(static_cast<char*>(destination) + row * destinationPitch,
                       static_cast<const char*>(source) + row * sourcePitch, width, kind)) {
            return cudaErrorInvalidValue;
          }
        }
        copyRows(destination, destinationPitch, source, sourcePitch, width, height);
        return cudaSuccess;
      });
}

cudaError_t cudaLaunchKernel(const void* function, dim3 grid, dim3 block, void** arguments,
                             size_t sharedBytes, cudaStream_t stream) {
  return enter("cudaLaunchKernel", {grid.x, grid.y, grid.z, block.x, block.y, block.z}, [&] {
    if (function == nullptr) return cudaErrorInvalidDeviceFunction;
    const std::size_t threads = std::size_t{block.x} * block.y * block.z;
    const bool runs = grid.x > 0 && grid.y > 0 && grid.z > 0 && grid.x <= 2147483647U &&
                      grid.y <= 65535 && grid.z <= 65535 && threads > 0 && threads <= 1024;
    if (!runs || sharedBytes != 0 || stream != nullptr) return cudaErrorInvalidConfiguration;
    runningLaunch = {grid, block};
    reinterpret_cast<void (*)(void**)>(const_cast<void*>(function))(arguments);
    return cudaSuccess;
  });
}
