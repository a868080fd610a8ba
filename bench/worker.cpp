/// @file
/// Runs one network for the scripts that time it next to other engines.
///
/// facezoo-bench-worker synth NET FILE writes seeded weights of NET.
/// facezoo-bench-worker NET WEIGHTS IMAGES BATCH constructs NET for the BATCH images that the file
/// IMAGES holds, as raw bytes, and prints the milliseconds that took. Then it answers every line of
/// standard input with one of standard output:
/// - "run": the milliseconds of one `Forward`, from bytes in host memory to results in host memory
/// - "time LEAD COUNT": those of each of COUNT such calls after LEAD others, from bytes in device
///   memory to results where the network leaves them; a card's own, which waits for one to end
///   before the next begins
/// - "results": what the last "run" gave
/// - "memory": the KiB by which the process has grown at most since before construction
/// - "profile": the milliseconds of one `Forward` by kind of call, in the order of `callKinds`; a
///   device that is not simulated answers with an empty line

#include "devices.h"
#include "facezoo.h"
#include "failure.h"
#include "files.h"
#include "networks.h"
#include "stopwatch.h"
#include "synthesis.h"

#if FACEZOO_SIMULATED
#include <host_device.h>
#endif

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

/// A line of the process's status: "VmRSS", now, or "VmHWM", at most.
long memoryKib(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
  throw Failure("no " + field + " in the process's status");
}

std::vector<char> readImages(const std::string& path, std::size_t bytes) {
  std::vector<char> images(bytes);
  std::ifstream file(path, std::ios::binary);
  if (!file.read(images.data(), static_cast<std::streamsize>(bytes)))
    throw Failure(path + ": fewer than " + std::to_string(bytes) + " bytes");
  return images;
}

#if FACEZOO_SIMULATED
/// The first kind whose part of a name a call's name holds; the last takes what is left.
constexpr std::array<const char*, 8> callKinds = {
    "Convolution7", "Convolution",        "cublas",     "Pooling",
    "LRN",          "BatchNormalization", "Activation", ""};

void profile(Network& network, void* images, int batch, float* results) {
  std::array<double, callKinds.size()> spent{};
  std::size_t kind = callKinds.size() - 1;
  Clock::time_point start = Clock::now();
  host_device::setObserver([&](const host_device::Call& call) {
    spent[kind] += millisecondsSince(start);
    std::string name = call.name;
    if (name.find("cudnnConvolution") == 0 && call.arguments.size() == 3) {
      name = "Convolution" + std::to_string(call.arguments[0]);  // which algorithm
    }
    for (kind = 0; name.find(callKinds[kind]) == std::string::npos;) ++kind;
    start = Clock::now();
  });
  network.Forward(images, batch, results, nullptr);
  host_device::setObserver({});
  spent[kind] += millisecondsSince(start);
  for (const double milliseconds : spent) std::cout << milliseconds << ' ';
}
#endif

void work(const KnownNetwork& known, const std::string& weights, const std::string& imageFile,
          int batch) {
  const facezoo::NetworkTable& table = *known.table;
  const bool onDevice = table.memory == facezoo::Results::onDevice;
  const std::vector<char> images =
      readImages(imageFile, std::size_t(batch) * table.channels * table.width * table.height);
  std::vector<float> results(std::size_t(batch) * table.outputCount());
  const std::size_t resultBytes = results.size() * sizeof(float);
  const GPU gpu;
  DeviceBuffer input(images.size());
  DeviceBuffer output(resultBytes);

  std::ofstream("/proc/self/clear_refs") << 5;  // the peak starts anew
  const long before = memoryKib("VmRSS");
  Clock::time_point start = Clock::now();
  known.with(weights, batch, "", [&](Network& network) {
    std::cout << millisecondsSince(start) << std::endl;
    float* const out = onDevice ? static_cast<float*>(output.data()) : results.data();
    Stopwatch watch;
    const auto upload = [&] {
      checkCall(cudaMemcpy(input.data(), images.data(), images.size(), cudaMemcpyHostToDevice),
                "copy of images to the device");
    };
    const auto forward = [&] { network.Forward(input.data(), batch, out, nullptr); };
    for (std::string line; std::getline(std::cin, line);) {
      if (line == "run") {
        start = Clock::now();
        upload();
        forward();
        if (onDevice) {
          checkCall(cudaMemcpy(results.data(), output.data(), resultBytes, cudaMemcpyDeviceToHost),
                    "copy of results from the device");
        }
        std::cout << millisecondsSince(start) << std::endl;
      } else if (line.rfind("time ", 0) == 0) {
        std::istringstream numbers(line.substr(5));
        int lead = 0, count = 0;
        numbers >> lead >> count;
        upload();
        for (int i = 0; i < lead; ++i) forward();
        for (int i = 0; i < count; ++i) {
          watch.start();
          forward();
          std::cout << watch.stop() << ' ';
        }
        std::cout << std::endl;
      } else if (line == "results") {
        for (const float value : results) std::cout << value << ' ';
        std::cout << std::endl;
      } else if (line == "memory") {
        std::cout << memoryKib("VmHWM") - before << std::endl;
      } else if (line == "profile") {
#if FACEZOO_SIMULATED
        profile(network, input.data(), batch, out);
#endif
        std::cout << std::endl;
      }
    }
  });
}

void synthesize(const std::string& network, const std::string& path) {
  NewFile file(path);
  writeRandomWeights(*findNetwork(network).table, "", 1, file.stream());
  file.keep();
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    std::cout.precision(9);
    if (arguments.size() == 3 && arguments[0] == "synth") {
      synthesize(arguments[1], arguments[2]);
    } else if (arguments.size() == 4) {
      work(findNetwork(arguments[0]), arguments[1], arguments[2], std::stoi(arguments[3]));
    } else {
      throw Failure("usage: facezoo-bench-worker (NET WEIGHTS IMAGES BATCH | synth NET FILE)");
    }
    return 0;
  } catch (...) {
    std::cerr << "facezoo-bench-worker: " << describeException() << std::endl;
    return 1;
  }
}
