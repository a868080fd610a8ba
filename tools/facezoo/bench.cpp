#include "arguments.h"
#include "client/batch.h"
#include "client/cpu_platform.h"
#include "client/failure.h"
#include "client/file_kind.h"
#include "client/networks.h"
#include "client/synthesis.h"
#include "client/weight_document.h"
#include "commands.h"
#include "facezoo.h"
#include "facezoo/listener.h"
#include "rows.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <system_error>

using namespace facezoo;

namespace {

using Json = nlohmann::ordered_json;

constexpr int kWarmUp = 3;
constexpr std::size_t kLeastPasses = 10;
constexpr double kMiB = 1 << 20;

struct Options {
  std::vector<std::string> networks;
  std::vector<int> batches = {1, 8};
  std::string weights, prefix, format = "table";
  double seconds = 1;
};

/// A temporary file of seeded weights. Its name is removed at once, so that the system deletes the
/// file when the process ends, however it does.
class UnnamedWeights {
 public:
  UnnamedWeights(const NetworkTable& network, const std::string& prefix) {
    std::error_code error;
    const auto folder = std::filesystem::temp_directory_path(error);
    if (error) throw Failure("the folder for temporary files (TMPDIR): " + error.message());
    std::string name = (folder / "facezoo-bench-XXXXXX").string();
    handle_ = mkstemp(name.data());
    if (handle_ < 0) throwSystemFailure(name + ": cannot be created");
    unlink(name.c_str());
    std::ofstream file(path(), std::ios::binary);
    writeRandomWeights(network, prefix, 1, file);
    file.close();
    if (file) return;
    close(handle_);
    throw Failure(name + ": cannot be written");
  }
  UnnamedWeights(const UnnamedWeights&) = delete;
  UnnamedWeights& operator=(const UnnamedWeights&) = delete;
  ~UnnamedWeights() { close(handle_); }

  std::string path() const { return "/proc/self/fd/" + std::to_string(handle_); }

 private:
  int handle_;
};

double freeDeviceMemory() {
  std::size_t free = 0, total = 0;
  checkCall(cudaMemGetInfo(&free, &total), "free memory of the device");
  return static_cast<double>(free);
}

/// The smallest value that at least `percent` percent of `sorted` do not exceed.
double percentile(const std::vector<double>& sorted, int percent) {
  return sorted[(sorted.size() * percent + 99) / 100 - 1];
}

struct Figures {
  double construction = 0;        ///< milliseconds
  std::vector<double> latencies;  ///< milliseconds, in order of size
  double imagesPerSecond = 0;
  double deviceMemory = 0, peakMemory = 0;  ///< MiB
};

/// Times whole passes, from host memory to host memory, and `Forward` alone, by turns.
void timePasses(Network& network, Batch& batch, double seconds, Figures& figures) {
  for (int i = 0; i < kWarmUp; ++i) batch.pass(network);
  double whole = 0;
  const Timer all;
  do {
    const Timer pass;
    batch.pass(network);
    whole += pass.milliseconds();
    batch.wait();
    const Timer forward;
    batch.forward(network);
    batch.wait();
    figures.latencies.push_back(forward.milliseconds());
  } while (figures.latencies.size() < kLeastPasses || all.milliseconds() < seconds * 1000);
  const std::size_t passes = figures.latencies.size();
  figures.imagesPerSecond = 1000 * static_cast<double>(passes * batch.size()) / whole;
  std::sort(figures.latencies.begin(), figures.latencies.end());
}

Figures measure(const KnownNetwork& known, const std::string& weights, int size,
                const Options& options) {
  Batch batch(*known.table, size, known.table->hasNorm);
  std::generate_n(batch.images(), size * batch.imageBytes(), std::minstd_rand(1));
  Figures figures;
  resetPeakMemory();
  const double before = freeDeviceMemory();
  const Timer construction;
  const auto network = known.make(weights, size, options.prefix);
  figures.construction = construction.milliseconds();
  timePasses(*network, batch, options.seconds, figures);
  figures.deviceMemory = (before - freeDeviceMemory()) / kMiB;
  figures.peakMemory = static_cast<double>(memoryKib("VmHWM")) / 1024;
  return figures;
}

void addFigures(Json& row, const Figures& figures) {
  row["construction_ms"] = figures.construction;
  row["min_ms"] = figures.latencies.front();
  for (const int percent : {50, 90, 99})
    row["p" + std::to_string(percent) + "_ms"] = percentile(figures.latencies, percent);
  row["max_ms"] = figures.latencies.back();
  row["images_per_s"] = figures.imagesPerSecond;
  row["device_MiB"] = figures.deviceMemory;
  row["peak_MiB"] = figures.peakMemory;
  row["passes"] = figures.latencies.size();
}

void printSetting(const Json& common) {
  std::string line;
  for (const auto& [name, value] : common.items()) {
    if (!line.empty()) line += ", ";
    line += name + ' ' + (value.is_string() ? value.get<std::string>() : value.dump());
  }
  std::cout << line << '\n';
}

void requireUsage(const Options& options) {
  if (!options.weights.empty() && options.networks.size() != 1) {
    throw CLI::ValidationError("--weights", "belongs to exactly one NET, found " +
                                                std::to_string(options.networks.size()));
  }
  for (const std::string& name : options.networks)
    for (const int batch : options.batches) requireBatch(*findNetwork(name).table, batch);
}

void benchNetwork(const std::string& name, const Options& options, const Json& common, Rows& rows) {
  const KnownNetwork& known = findNetwork(name);
  std::optional<UnnamedWeights> random;
  if (options.weights.empty()) random.emplace(*known.table, options.prefix);
  const std::string weights = random ? random->path() : options.weights;
  for (const int batch : options.batches) {
    Json row = common;
    row["network"] = name;
    row["batch"] = batch;
    try {
      const Listener quiet;
      addFigures(row, measure(known, weights, batch, options));
    } catch (...) {
      throw Failure(name + " for batches of " + std::to_string(batch) + ": " + describeException());
    }
    rows.print(row);
    std::cout.flush();
  }
}

void bench(Options options) {
  if (options.networks.empty() && options.weights.empty()) options.networks = networkNames();
  requireUsage(options);
  if (!options.weights.empty()) {
    expectWeightFile(options.weights, options.networks[0]);
    requireWeights(WeightDocument(options.weights), options.weights,
                   *findNetwork(options.networks[0]).table, options.prefix);
  }
  const std::vector<Device> devices = listDevices();
  Json common = describeBuild();  // which all rows repeat
  common["device"] = devices[chosenDevice(devices)].properties.name;
  const GPU gpu;
  if (options.format == "table") printSetting(common);
  Rows rows(options.format, {{"network", 24},
                             {"batch", 5, 0},
                             {"construction_ms", 15, 1},
                             {"min_ms", 8, 2},
                             {"p50_ms", 8, 2},
                             {"p90_ms", 8, 2},
                             {"p99_ms", 8, 2},
                             {"max_ms", 8, 2},
                             {"images_per_s", 12, 1},
                             {"device_MiB", 10, 1},
                             {"peak_MiB", 8, 1}});
  for (const std::string& name : options.networks) benchNetwork(name, options, common, rows);
}

}  // namespace

void addBench(CLI::App& tool) {
  CLI::App* command = tool.add_subcommand("bench", "Time networks and say what memory they take");
  const auto options = std::make_shared<Options>();
  addNetworkArguments(*command, options->networks);
  command
      ->add_option("-w,--weights", options->weights, "Weight file of the one network that is named")
      ->type_name("FILE");
  addPrefixOption(*command, options->prefix);
  command
      ->add_option("--batch", options->batches,
                   "Batch sizes to measure: images in one call of the network")
      ->transform(wholeNumber(1, std::numeric_limits<int>::max()))
      ->type_name("N")
      ->capture_default_str();
  command
      ->add_option("--seconds", options->seconds,
                   "How long to repeat each measurement; at least 10 passes are made")
      ->check(positiveNumber())
      ->type_name("S")
      ->capture_default_str();
  command->add_option("--format", options->format, "How to print the results")
      ->check(CLI::IsMember(rowFormats))
      ->type_name("F")
      ->capture_default_str();
  command->footer(
      "Without -w the weights are seeded random numbers, as weights synth makes them.\n"
      "construction_ms: time from the file's name to a network that is ready\n"
      "min_ms ... max_ms: time of one Forward, from images on the device until the device is idle\n"
      "  again; p50 is the time that half of the passes do not exceed, p90 and p99 likewise\n"
      "images_per_s: throughput of copying a batch to the device, Forward with norms, and copying\n"
      "  the results back, which is what run does once the pictures are decoded\n"
      "device_MiB: device memory that the network takes; on a GPU the first row includes what the\n"
      "  libraries load\n"
      "peak_MiB: the most memory that the process had resident. On the CPU platform that includes\n"
      "  what has been written of the device's memory; what was reserved only, as most of the\n"
      "  workspace often is, counts in device_MiB alone\n"
      "Both kinds of pass are made in turn, after 3 that are not counted. OMP_NUM_THREADS sets "
      "how\n"
      "many threads the CPU platform uses. CSV and JSON repeat in every row what was measured on.\n"
      "Example: facezoo bench DexpressionNet LCNN29 --batch 1 4 --seconds 0.5");
  command->callback([options] { bench(*options); });
}
