#include "commands.h"
#include "devices.h"
#include "facezoo.h"
#include "failure.h"
#include "files.h"
#include "images.h"
#include "networks.h"
#include "weight_document.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>

namespace {

using facezoo::NetworkTable;
using facezoo::OutputGroup;

struct Options {
  std::string network, weights, prefix, format = "table";
  int batch = 8;
  std::vector<std::string> images;
};

/// Prints results, one line for each image.
class Report {
 public:
  Report(const Options& options, const NetworkTable& network)
      : format_(options.format), network_(network) {
    for (const std::string& image : options.images) width_ = std::max(width_, columns(image));
  }

  void head() const {
    if (format_ == "json") return;
    std::vector<std::string> names;
    for (const OutputGroup& group : network_.outputs)
      for (int i = 0; i < group.count; ++i)
        names.push_back(std::string(group.name) + "_" + std::to_string(i));
    row("image", names);
  }

  void line(const std::string& image, const float* values) const {
    if (format_ == "json") {
      nlohmann::ordered_json line = {{"image", image}};
      for (const OutputGroup& group : network_.outputs) {
        line[group.name] = std::vector<float>(values, values + group.count);
        values += group.count;
      }
      std::puts(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
      return;
    }
    std::vector<std::string> cells(network_.outputDim);
    for (std::string& cell : cells) {
      char text[32];
      std::snprintf(text, sizeof text, format_ == "csv" ? "%.9g" : "%.6f", *values++);
      cell = text;
    }
    row(image, cells);
  }

 private:
  /// Characters of a UTF-8 text.
  static std::size_t columns(const std::string& text) {
    return std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; });
  }

  static std::string quoted(const std::string& text) {
    std::string result = "\"";
    for (const char c : text) result += c == '"' ? "\"\"" : std::string(1, c);
    return result + "\"";
  }

  void row(const std::string& image, const std::vector<std::string>& cells) const {
    const bool csv = format_ == "csv";
    const bool plain = !csv || image.find_first_of(",\"\r\n") == std::string::npos;
    std::printf("%s", csv ? (plain ? image : quoted(image)).c_str() : printable(image).c_str());
    if (!csv) std::printf("%*s", static_cast<int>(width_ - columns(image)), "");
    for (const std::string& cell : cells) std::printf(csv ? ",%s" : "  %8s", cell.c_str());
    std::printf("\n");
  }

  const std::string& format_;
  const NetworkTable& network_;
  std::size_t width_ = columns("image");
};

/// Keeps the library's own lines off standard error, where the tool says one line of its own. With
/// glibc stdio's streams are variables; what is written past stdio, as by a sanitizer, still shows.
class QuietLibrary {
 public:
  QuietLibrary() {
    if (nowhere_ != nullptr) stderr = nowhere_;
  }
  QuietLibrary(const QuietLibrary&) = delete;
  QuietLibrary& operator=(const QuietLibrary&) = delete;
  ~QuietLibrary() {
    stderr = saved_;
    if (nowhere_ != nullptr) std::fclose(nowhere_);
  }

 private:
  std::FILE* saved_ = stderr;
  std::FILE* nowhere_ = std::fopen("/dev/null", "w");
};

/// Finds what the constructor would, but all of it and without a device.
void requireWeights(const Options& options, const NetworkTable& network) {
  const WeightFindings findings =
      checkWeights(WeightDocument(options.weights), network, options.prefix);
  if (findings.faults.empty()) return;
  std::string line = options.weights;
  for (const std::string& fault : findings.faults)
    line += (&fault == &findings.faults.front() ? ": " : "; ") + fault;
  throw Failure(line);
}

void run(const Options& options) {
  const KnownNetwork& known = findNetwork(options.network);
  const NetworkTable& table = *known.table;
  const int mostImages = std::numeric_limits<int>::max() / table.perImageBytes;
  if (options.batch > mostImages) {
    throw CLI::ValidationError("--batch", options.network + " takes at most " +
                                              std::to_string(mostImages) + ", found " +
                                              std::to_string(options.batch));
  }
  requireWeights(options, table);
  chosenDevice(listDevices());

  const std::size_t batch = std::min<std::size_t>(options.batch, options.images.size());
  const auto runBatches = [&](Network& network) {
    const std::size_t imageBytes = std::size_t(table.channels) * table.width * table.height;
    std::vector<unsigned char> pixels(batch * imageBytes);
    std::vector<float> results(batch * table.outputDim);
    DeviceBuffer input(pixels.size());
    const Report report(options, table);
    for (std::size_t first = 0; first < options.images.size(); first += batch) {
      const std::size_t count = std::min(batch, options.images.size() - first);
      for (std::size_t i = 0; i < count; ++i)
        loadImage(options.images[first + i], table.channels, table.width, table.height,
                  &pixels[i * imageBytes]);
      checkCall(cudaMemcpy(input.data(), pixels.data(), count * imageBytes, cudaMemcpyHostToDevice),
                "copy of images to the device");
      network.Forward(input.data(), static_cast<int>(count), results.data(), nullptr);
      if (first == 0) report.head();
      for (std::size_t i = 0; i < count; ++i)
        report.line(options.images[first + i], &results[i * table.outputDim]);
    }
  };
  try {
    const QuietLibrary quiet;
    const GPU gpu;
    known.with(options.weights, static_cast<int>(batch), options.prefix, runBatches);
  } catch (const Failure&) {
    throw;
  } catch (...) {
    throw Failure(options.network + " with " + options.weights + " for batches of " +
                  std::to_string(batch) + ": " + describeException());
  }
}

}  // namespace

void addRun(CLI::App& tool) {
  CLI::App* command = tool.add_subcommand("run", "Run a network on images and print its results");
  const auto options = std::make_shared<Options>();
  addNetworkArgument(*command, options->network);
  command->add_option("IMAGE", options->images, "PNG or JPEG files")->required();
  command->add_option("-w,--weights", options->weights, "Weight file")
      ->required()
      ->type_name("FILE");
  addPrefixOption(*command, options->prefix);
  command->add_option("--batch", options->batch, "Most images for one call of the network")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()))
      ->type_name("N")
      ->capture_default_str();
  command->add_option("--format", options->format, "Of the results")
      ->check(CLI::IsMember({"table", "json", "csv"}))
      ->type_name("F")
      ->capture_default_str();
  command->footer(
      "Images are turned grey for a network of one channel, cropped around their centre to its\n"
      "aspect ratio, then resampled to its size. An orientation tag is ignored.\n"
      "Example: facezoo run DexpressionNet -w weights.msgpack --format json face.jpg");
  command->callback([options] { run(*options); });
}
