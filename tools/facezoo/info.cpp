#include "commands.h"
#include "device_requirement.h"
#include "devices.h"
#include "failure.h"
#include "networks.h"

#include <cublas_v2.h>
#include <cudnn.h>

#include <cstdio>

namespace {

// The libraries count versions in decimal places, and all but the runtime changed the places once.
std::string version(std::size_t number, std::size_t majorUnit) {
  return std::to_string(number / majorUnit) + "." + std::to_string(number % majorUnit / 100) + "." +
         std::to_string(number % 100);
}

std::string runtimeVersion() {
  int number = 0;
  checkCall(cudaRuntimeGetVersion(&number), "version of the CUDA runtime");
  return std::to_string(number / 1000) + "." + std::to_string(number % 1000 / 10);
}

std::string blasVersion() {
  cublasHandle_t handle = nullptr;
  int number = 0;
  if (cublasCreate_v2(&handle) != CUBLAS_STATUS_SUCCESS) return "unknown without a usable device";
  cublasGetVersion_v2(handle, &number);
  cublasDestroy_v2(handle);
  return version(number, number < 100000 ? 1000 : 10000);
}

void printDevices(const std::vector<Device>& devices) {
  bool taken = false;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    const auto& [properties, shortcoming] = devices[i];
    const std::string verdict = !shortcoming.empty() ? "not usable: " + shortcoming
                                : taken              ? "not chosen: an earlier device is"
                                                     : "chosen";
    taken = taken || shortcoming.empty();
    std::printf("device %zu     %s, compute capability %d.%d, %zu MiB, %s\n", i, properties.name,
                properties.major, properties.minor, properties.totalGlobalMem >> 20,
                verdict.c_str());
  }
}

void info() {
  const std::size_t dnn = cudnnGetVersion();
  std::printf("facezoo      %s, platform %s\n", FACEZOO_VERSION, FACEZOO_PLATFORM);
  std::printf("CUDA runtime %s, required 10.1\n", runtimeVersion().c_str());
  std::printf("cuDNN        %s, required 7.0\n", version(dnn, dnn < 90000 ? 1000 : 10000).c_str());
  std::printf("cuBLAS       %s\n", blasVersion().c_str());
  std::printf("required     compute capability %d.0, %zu MiB\n", facezoo::requiredMajor,
              facezoo::requiredMiB);
  for (const KnownNetwork& known : knownNetworks()) {
    const facezoo::NetworkTable& table = *known.table;
    std::printf("network      %s, %d channel(s) of %d x %d pixels, results", table.name,
                table.channels, table.width, table.height);
    for (const facezoo::OutputGroup& group : table.outputs)
      std::printf(" %s (%d)", group.name, group.count);
    std::printf("%s\n", table.hasNorm ? " norm (1)" : "");
  }
  const std::vector<Device> devices = listDevices();
  printDevices(devices);
  chosenDevice(devices);
}

}  // namespace

void addInfo(CLI::App& tool) {
  CLI::App* command =
      tool.add_subcommand("info", "Show the build, the versions found, the devices, the networks");
  command->footer("Example: facezoo info\nExit code 1 if the library could use no device.");
  command->callback(info);
}
