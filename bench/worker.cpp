/// @file
/// Runs one network for the scripts that time it next to other engines.
///
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

#include "client/batch.h"
#include "client/failure.h"
#include "client/networks.h"
#include "facezoo.h"
#include "stopwatch.h"

#if FACEZOO_SIMULATED
#include <host_device.h>
#endif

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

using namespace facezoo;

namespace {

void readImages(const std::string& path, Batch& batch) {
  const std::size_t bytes = batch.size() * batch.imageBytes();
  std::ifstream file(path, std::ios::binary);
  if (!file.read(reinterpret_cast<char*>(batch.images()), static_cast<std::streamsize>(bytes)))
    throw Failure(path + ": fewer than " + std::to_string(bytes) + " bytes");
}

#if FACEZOO_SIMULATED
/// The first kind whose part of a name a call's name holds; the last takes what is left.
constexpr std::array<const char*, 8> callKinds = {
    "Convolution7", "Convolution",        "cublas",     "Pooling",
    "LRN",          "BatchNormalization", "Activation", ""};

void profile(Network& network, Batch& batch) {
  std::array<double, callKinds.size()> spent{};
  std::size_t kind = callKinds.size() - 1;
  Timer timer;
  host_device::setObserver([&](const host_device::Call& call) {
    spent[kind] += timer.milliseconds();
    std::string name = call.name;
    if (name.find("cudnnConvolution") == 0 && call.arguments.size() == 3) {
      name = "Convolution" + std::to_string(call.arguments[0]);  // which algorithm
    }
    for (kind = 0; name.find(callKinds[kind]) == std::string::npos;) ++kind;
    timer = Timer();
  });
  batch.forward(network);
  host_device::setObserver({});
  spent[kind] += timer.milliseconds();
  for (const double milliseconds : spent) std::cout << milliseconds << ' ';
}
#endif

void work(const KnownNetwork& known, const std::string& weights, const std::string& imageFile,
          int size) {
  const GPU gpu;
  Batch batch(*known.table, size, facezoo::withoutNorm);
  readImages(imageFile, batch);
  resetPeakMemory();
  const long before = memoryKib("VmRSS");
  const Timer construction;
  const auto network = known.make(weights, size, "");
  std::cout << construction.milliseconds() << std::endl;
  Stopwatch watch;
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "run") {
      const Timer pass;
      batch.pass(*network);
      std::cout << pass.milliseconds() << std::endl;
    } else if (line.rfind("time ", 0) == 0) {
      std::istringstream numbers(line.substr(5));
      int lead = 0, count = 0;
      numbers >> lead >> count;
      batch.upload();
      for (int i = 0; i < lead; ++i) batch.forward(*network);
      for (int i = 0; i < count; ++i) {
        watch.start();
        batch.forward(*network);
        std::cout << watch.stop() << ' ';
      }
      std::cout << std::endl;
    } else if (line == "results") {
      std::for_each(batch.values(0), batch.values(size), [](float v) { std::cout << v << ' '; });
      std::cout << std::endl;
    } else if (line == "memory") {
      std::cout << memoryKib("VmHWM") - before << std::endl;
    } else if (line == "profile") {
#if FACEZOO_SIMULATED
      profile(*network, batch);
#endif
      std::cout << std::endl;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
#if FACEZOO_SIMULATED
    if (!host_device::useInstructionSetOfEnvironment())
      throw Failure("FACEZOO_INSTRUCTION_SET names a set that this processor lacks");
#endif
    std::cout.precision(9);
    if (arguments.size() != 4)
      throw Failure("usage: facezoo-bench-worker NET WEIGHTS IMAGES BATCH");
    work(findNetwork(arguments[0]), arguments[1], arguments[2], std::stoi(arguments[3]));
    return 0;
  } catch (...) {
    std::cerr << "facezoo-bench-worker: " << describeException() << std::endl;
    return 1;
  }
}
