#include "arguments.h"
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
#include <cmath>
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

/// What the network gives for one image, the norm included.
std::vector<OutputGroup> groupsOf(const NetworkTable& network) {
  std::vector<OutputGroup> groups(network.outputs.begin(), network.outputs.end());
  if (network.hasNorm) groups.push_back({"norm", 1});
  return groups;
}

/// Prints results, one line for each image.
class Report {
 public:
  Report(const Options& options, const NetworkTable& network)
      : format_(options.format), groups_(groupsOf(network)) {
    widths_.push_back(columns("image"));
    for (const std::string& image : options.images)
      widths_[0] = std::max(widths_[0], columns(image));
  }

  void head() {
    if (format_ == "json") return;
    std::vector<std::string> names = {"image"};
    for (const OutputGroup& group : groups_) {
      const bool single = group.count == 1;
      for (int i = 0; i < shown(group); ++i)
        names.push_back(group.name + (single ? "" : "_" + std::to_string(i)));
      if (shown(group) < group.count) names.push_back("...");
    }
    constexpr std::size_t kNumber = 10;
    for (std::size_t i = 1; i < names.size(); ++i)
      widths_.push_back(names[i] == "..." ? 3 : std::max(kNumber, columns(names[i])));
    row(names);
  }

  /// @param values of all groups
  void line(const std::string& image, const std::vector<float>& values) const {
    const float* value = values.data();
    if (format_ == "json") {
      nlohmann::ordered_json line = {{"image", image}};
      for (const OutputGroup& group : groups_) {
        if (group.count == 1) {
          line[group.name] = *value;
        } else {
          line[group.name] = std::vector<float>(value, value + group.count);
        }
        value += group.count;
      }
      std::puts(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
      return;
    }
    std::vector<std::string> cells = {image};
    for (const OutputGroup& group : groups_) {
      for (int i = 0; i < shown(group); ++i) {
        cells.push_back(number(value[i]));
      }
      if (shown(group) < group.count) cells.emplace_back("...");
      value += group.count;
    }
    row(cells);
  }

 private:
  /// Characters of a UTF-8 text.
  static std::size_t columns(const std::string& text) {
    return std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; });
  }

  static std::string quoted(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string result = "\"";
    for (const char c : text) result += c == '"' ? "\"\"" : std::string(1, c);
    return result + "\"";
  }

  std::string number(float value) const {
    const bool csv = format_ == "csv";
    char text[32];
    std::snprintf(text, sizeof text, csv ? "%.9g" : std::abs(value) < 100 ? "%.6f" : "%.6g", value);
    return text;
  }

  /// How many of its values a line holds. A table of hundreds of columns serves nobody.
  int shown(const OutputGroup& group) const {
    constexpr int kMost = 8;
    constexpr int kFirst = 4;
    return format_ == "table" && group.count > kMost ? kFirst : group.count;
  }

  /// The first cell is the image.
  void row(const std::vector<std::string>& cells) const {
    const bool csv = format_ == "csv";
    std::printf("%s", (csv ? quoted(cells[0]) : printable(cells[0])).c_str());
    if (!csv) std::printf("%*s", static_cast<int>(widths_[0] - columns(cells[0])), "");
    for (std::size_t i = 1; i < cells.size(); ++i) {
      if (csv) {
        std::printf(",%s", cells[i].c_str());
      } else {
        std::printf("  %*s", static_cast<int>(widths_[i]), cells[i].c_str());
      }
    }
    std::printf("\n");
  }

  const std::string& format_;
  std::vector<OutputGroup> groups_;
  std::vector<std::size_t> widths_;
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
  constexpr std::size_t kMost = 5;
  const std::size_t named = std::min(kMost, findings.faults.size());
  std::string line = options.weights;
  for (std::size_t i = 0; i < named; ++i) line += (i == 0 ? ": " : "; ") + findings.faults[i];
  if (const std::size_t more = findings.faults.size() - named; more > 0)
    line += "; and " + std::to_string(more) + " more, which weights check lists";
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
    const std::size_t perImage = table.outputCount();
    const bool onDevice = table.memory == facezoo::Results::onDevice;
    std::vector<unsigned char> pixels(batch * imageBytes);
    std::vector<float> results(batch * perImage);
    std::vector<float> norms(table.hasNorm ? batch : 0);
    DeviceBuffer input(pixels.size());
    DeviceBuffer output(onDevice ? results.size() * sizeof(float) : 1);
    Report report(options, table);
    for (std::size_t first = 0; first < options.images.size(); first += batch) {
      const std::size_t count = std::min(batch, options.images.size() - first);
      for (std::size_t i = 0; i < count; ++i)
        loadImage(options.images[first + i], table.channels, table.width, table.height,
                  &pixels[i * imageBytes]);
      checkCall(cudaMemcpy(input.data(), pixels.data(), count * imageBytes, cudaMemcpyHostToDevice),
                "copy of images to the device");
      network.Forward(input.data(), static_cast<int>(count),
                      onDevice ? static_cast<float*>(output.data()) : results.data(),
                      table.hasNorm ? norms.data() : nullptr);
      if (onDevice) {
        checkCall(cudaMemcpy(results.data(), output.data(), count * perImage * sizeof(float),
                             cudaMemcpyDeviceToHost),
                  "copy of results from the device");
      }
      if (first == 0) report.head();
      for (std::size_t i = 0; i < count; ++i) {
        std::vector<float> values(&results[i * perImage], &results[i * perImage] + perImage);
        if (table.hasNorm) values.push_back(norms[i]);
        report.line(options.images[first + i], values);
      }
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
      "A table shows the first values of a long group; JSON and CSV hold all of them.\n"
      "Example: facezoo run DexpressionNet -w weights.msgpack --format json face.jpg");
  command->callback([options] { run(*options); });
}
