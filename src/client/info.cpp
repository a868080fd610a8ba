#include "client/info.h"

#include "client/cpu_platform.h"
#include "client/devices.h"
#include "client/failure.h"
#include "client/networks.h"

#include <cublas_v2.h>
#include <cudnn.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace facezoo {

namespace {

using Json = nlohmann::ordered_json;

struct Version {
  int major, minor, patch;
};

std::string toString(const Version& version) {
  return std::to_string(version.major) + "." + std::to_string(version.minor) + "." +
         std::to_string(version.patch);
}

// The runtime and the driver count minor versions in tens. cuDNN counts them in hundreds, and its
// major ones in another unit since version 9.
Version cudaVersion(int number) { return {number / 1000, number % 1000 / 10, 0}; }
Version dnnVersion() {
  const int number = static_cast<int>(cudnnGetVersion());
  const int majorUnit = number < 90000 ? 1000 : 10000;
  return {number / majorUnit, number % majorUnit / 100, number % 100};
}

Version blasVersion() {
  Version version = {};
  cublasGetProperty(MAJOR_VERSION, &version.major);
  cublasGetProperty(MINOR_VERSION, &version.minor);
  cublasGetProperty(PATCH_LEVEL, &version.patch);
  return version;
}

/// The versions that cmake/CudaPlatform.cmake accepts; cuBLAS comes with the toolkit.
Json library(const char* name, const Version& found, const char* supported, int least,
             int leastMinor, int most) {
  const bool older = found.major < least || (found.major == least && found.minor < leastMinor);
  return {{"library", name},
          {"found", toString(found)},
          {"supported", supported},
          {"verdict", older                ? "too old"
                      : found.major > most ? "too new"
                                           : "supported"}};
}

// From version 11 on, a driver serves all runtimes of its major version.
Json driver(const Version& runtime) {
  int number = 0;
  checkCall(cudaDriverGetVersion(&number), "version of the CUDA driver");
  const Version found = cudaVersion(number);
  const char* verdict = "supported";
  if (number == 0) {
    verdict = cpuPlatform() ? "not needed" : "missing";
  } else if (found.major < runtime.major) {
    verdict = "too old";
  }
  return {{"library", "CUDA driver"},
          {"found", number == 0 ? "none" : toString(found)},
          {"supported", cpuPlatform() ? "none" : "from " + std::to_string(runtime.major) + ".0"},
          {"verdict", verdict}};
}

Json libraries() {
  int number = 0;
  checkCall(cudaRuntimeGetVersion(&number), "version of the CUDA runtime");
  const Version runtime = cudaVersion(number);
  return {library("CUDA runtime", runtime, "10.1 to 13", 10, 1, 13), driver(runtime),
          library("cuDNN", dnnVersion(), "7 to 9", 7, 0, 9),
          library("cuBLAS", blasVersion(), "10 to 13", 10, 0, 13)};
}

Json describeDevices(const std::vector<Device>& devices) {
  Json rows = Json::array();
  bool taken = false;
  for (const auto& [properties, shortcoming] : devices) {
    const std::string verdict = !shortcoming.empty() ? "not usable: " + shortcoming
                                : taken              ? "not chosen: an earlier device is"
                                                     : "chosen";
    taken = taken || shortcoming.empty();
    rows.push_back(
        {{"device", rows.size()},
         {"name", properties.name},
         {"capability", std::to_string(properties.major) + "." + std::to_string(properties.minor)},
         {"MiB", properties.totalGlobalMem >> 20},
         {"verdict", verdict}});
  }
  return rows;
}

Json networks() {
  Json rows = Json::array();
  for (const KnownNetwork& known : knownNetworks()) {
    const NetworkTable& table = *known.table;
    std::string results;
    for (const OutputGroup& group : table.outputs)
      results += " " + std::string(group.name) + " (" + std::to_string(group.count) + ")";
    if (table.hasNorm) results += " norm (1)";
    rows.push_back({{"network", table.name},
                    {"channels", table.channels},
                    {"width", table.width},
                    {"height", table.height},
                    {"results", results.substr(1)}});
  }
  return rows;
}

constexpr Variable kVariables[] = {
    // CUDA Programming Guide, "CUDA Environment Variables"
    {"CUDA_VISIBLE_DEVICES", "which GPUs there are, and in which order"},
    {"CUDA_DEVICE_ORDER", "whether the fastest GPU comes first, or the first on the bus"},
    {"CUDA_LAUNCH_BLOCKING", "1: every kernel is waited for, which takes time"},
    // cuDNN API reference, "cudnnMathType_t"
    {"NVIDIA_TF32_OVERRIDE", "0: no TF32 in cuDNN and cuBLAS, whatever a program asks for"},
    // cuBLAS, "Results Reproducibility"
    {"CUBLAS_WORKSPACE_CONFIG", "cuBLAS's buffers, and so which of its kernels run"},
    // cuBLAS, "Floating Point Emulation"
    {"CUBLAS_EMULATE_SINGLE_PRECISION", "1: cuBLAS may compute fp32 from products of bfloat16"},
    {"CUBLAS_EMULATION_STRATEGY", "when it does: performant or eager"},
    // OpenMP API, "Environment Variables", of which the CPU platform reads the first number
    {"OMP_NUM_THREADS", "threads of the CPU platform"},
    {"OMP_THREAD_LIMIT", "most threads of the CPU platform"},
};

Json environment() {
  Json rows = Json::array();
  for (const Variable& variable : kVariables) {
    if (const char* const value = std::getenv(variable.name)) {
      rows.push_back({{"variable", variable.name}, {"value", value}, {"effect", variable.effect}});
    }
  }
  return rows;
}

}  // namespace

View<Variable> environmentVariables() { return view(kVariables); }

Json collectInformation(std::string* noDevice) {
  std::vector<Device> devices;
  try {
    devices = listDevices();
    chosenDevice(devices);
  } catch (const Failure& failure) {
    if (noDevice != nullptr) *noDevice = failure.what();
  }
  Json all = describeBuild();
  all["libraries"] = libraries();
  all["devices"] = describeDevices(devices);
  all["networks"] = networks();
  all["environment"] = environment();
  return all;
}

}  // namespace facezoo
