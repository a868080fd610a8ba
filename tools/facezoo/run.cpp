#include "arguments.h"
#include "batch.h"
#include "commands.h"
#include "devices.h"
#include "facezoo.h"
#include "failure.h"
#include "landmarks.h"
#include "networks.h"
#include "npy_file.h"
#include "picture_stream.h"
#include "pictures.h"
#include "progress.h"
#include "quiet_library.h"
#include "rows.h"
#include "weight_document.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>

namespace fs = std::filesystem;

namespace {

using facezoo::NetworkTable;
using facezoo::OutputGroup;

struct Options {
  std::string network, weights, prefix, format, features, list, drawings, layout;
  int batch = 8, threads = 0;
  float scale = 1;
  bool norm = false, strict = false;
  std::vector<std::string> images, compared;
};

/// What becomes of the results of one picture.
class Sink {
 public:
  Sink() = default;
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;
  virtual ~Sink() = default;
  virtual void take(const std::string& picture, const Batch& batch, int index) = 0;
  /// After the last picture.
  virtual void finish() {}
};

std::string formatOf(const Options& options) {
  return options.format.empty() ? "table" : options.format;
}

std::size_t widest(const std::vector<std::string>& texts) {
  std::size_t width = 0;
  for (const std::string& text : texts) width = std::max(width, widthOf(text));
  return width;
}

/// Prints a line for each picture.
class Lines : public Sink {
 public:
  Lines(const Options& options, const NetworkTable& table, const std::vector<std::string>& pictures)
      : groups_(options.features.empty() ? table.outputs : facezoo::View<OutputGroup>{nullptr, 0}),
        norm_(options.norm),
        rows_(formatOf(options), columns(widest(pictures))) {}

  void take(const std::string& picture, const Batch& batch, int index) override {
    nlohmann::ordered_json row = {{"image", picture}};
    const float* value = batch.values(index);
    for (const OutputGroup& group : groups_) {
      if (group.count == 1) {
        row[group.name] = *value;
      } else {
        row[group.name] = std::vector<float>(value, value + group.count);
      }
      value += group.count;
    }
    if (norm_) row["norm"] = batch.norm(index);
    rows_.print(row);
  }

 private:
  std::vector<Column> columns(std::size_t pictureWidth) const {
    constexpr std::size_t kNumber = 10;
    std::vector<Column> columns = {{"image", pictureWidth}};
    for (const OutputGroup& group : groups_)
      columns.push_back({group.name, kNumber, Column::kResult});
    if (norm_) columns.push_back({"norm", kNumber, Column::kResult});
    return columns;
  }

  facezoo::View<OutputGroup> groups_;  ///< none if they go to a file
  bool norm_;
  Rows rows_;
};

/// Writes a row of a NumPy array for each picture.
class Array : public Sink {
 public:
  Array(const std::string& path, const NetworkTable& table) : file_(path, table.outputCount()) {}

  void take(const std::string&, const Batch& batch, int index) override {
    file_.add(batch.values(index));
  }
  void finish() override {
    if (file_.rows() > 0) file_.keep();
  }

 private:
  NpyFile file_;
};

/// Writes each picture with its landmarks.
class Drawings : public Sink {
 public:
  Drawings(const Options& options, const NetworkTable& table,
           const std::vector<std::string>& pictures)
      : reading_{options.layout == "xyxy", options.scale}, geometry_(table) {
    std::error_code error;
    std::map<std::string, std::string> pictureOf;
    for (const std::string& picture : pictures) {
      const fs::path drawing = fs::path(options.drawings) / fs::path(picture).stem().concat(".png");
      const auto [known, isNew] = pictureOf.emplace(drawing.string(), picture);
      if (!isNew && known->second != picture) {
        throw Failure(drawing.string() + ": would be drawn from both " + known->second + " and " +
                      picture);
      }
      if (fs::equivalent(drawing, picture, error))
        throw Failure(drawing.string() + ": is a picture to be read, and would be replaced");
      drawingOf_.emplace(picture, drawing.string());
    }
    fs::create_directories(options.drawings, error);
    if (error) throw Failure(options.drawings + ": cannot be made: " + error.message());
  }

  void take(const std::string& picture, const Batch& batch, int index) override {
    const int outside =
        drawLandmarks(picture, batch.values(index), reading_, geometry_, drawingOf_.at(picture));
    if (outside > 0) {
      warn(picture + ": " + std::to_string(outside) +
           " of 68 landmarks lie outside the picture: do --layout and --scale fit the weights?");
    }
  }

 private:
  LandmarkReading reading_;
  facezoo::InputGeometry geometry_;
  std::map<std::string, std::string> drawingOf_;
};

/// Prints the cosine similarity of two pictures' descriptors.
class Comparison : public Sink {
 public:
  Comparison(const Options& options, const std::vector<std::string>& pictures)
      : rows_(formatOf(options), {{"image", widest({pictures[0]})},
                                  {"other", widest({pictures[1]})},
                                  {"cosine", 10, Column::kResult}}) {}

  void take(const std::string& picture, const Batch& batch, int index) override {
    const float* const results = batch.values(index);
    pictures_.push_back(picture);
    descriptors_.emplace_back(results, results + batch.valueCount());
  }
  void finish() override {
    const double product = dot(0, 1);
    const double lengths = std::sqrt(dot(0, 0)) * std::sqrt(dot(1, 1));
    rows_.print({{"image", pictures_[0]}, {"other", pictures_[1]}, {"cosine", product / lengths}});
  }

 private:
  double dot(std::size_t a, std::size_t b) const {
    double sum = 0;
    for (std::size_t i = 0; i < descriptors_[a].size(); ++i)
      sum += static_cast<double>(descriptors_[a][i]) * descriptors_[b][i];
    return sum;
  }

  Rows rows_;
  std::vector<std::string> pictures_;
  std::vector<std::vector<float>> descriptors_;
};

[[noreturn]] void refuse(const std::string& option, const std::string& why) {
  throw CLI::ValidationError(option, why);
}

/// What the parser cannot know: which options fit which network.
void checkUsage(const Options& options, const NetworkTable& table) {
  const auto gives = [&](const char* group) {
    return std::any_of(table.outputs.begin(), table.outputs.end(),
                       [&](const OutputGroup& found) { return std::string(found.name) == group; });
  };
  const std::string network = table.name;
  requireBatch(table, options.batch);
  if (options.norm && !table.hasNorm) refuse("--norm", network + " gives no norm");
  if (!options.compared.empty() && !gives("features"))
    refuse("--compare", "expected a network that gives a descriptor, found " + network);
  if (!options.drawings.empty() && !gives("landmarks"))
    refuse("--draw", "expected a network that gives landmarks, found " + network);
  if (!options.drawings.empty() && options.layout.empty())
    refuse("--draw", "expected --layout too, as only the weights' training tells it");
  if (!options.features.empty() && fs::path(options.features).extension() != ".npy")
    refuse("--features", "expected a name that ends in .npy, found " + options.features);
  if (options.images.empty() && options.list.empty() && options.compared.empty())
    refuse("IMAGE", "expected pictures, a directory, --list or --compare, found none");
}

std::vector<std::string> picturesOf(const Options& options) {
  if (!options.compared.empty()) return options.compared;
  std::vector<std::string> paths = options.images;
  if (!options.list.empty())
    for (std::string& line : readList(options.list)) paths.push_back(std::move(line));
  return findPictures(paths);
}

bool printsLines(const Options& options) {
  return options.compared.empty() && (options.features.empty() || !options.format.empty());
}

std::vector<std::unique_ptr<Sink>> sinksFor(const Options& options, const NetworkTable& table,
                                            const std::vector<std::string>& pictures) {
  std::vector<std::unique_ptr<Sink>> sinks;
  if (!options.compared.empty()) sinks.emplace_back(new Comparison(options, pictures));
  if (!options.features.empty()) sinks.emplace_back(new Array(options.features, table));
  if (!options.drawings.empty()) sinks.emplace_back(new Drawings(options, table, pictures));
  if (printsLines(options)) sinks.emplace_back(new Lines(options, table, pictures));
  return sinks;
}

/// Takes the pictures through a network in full batches. @return how many could not be read
std::size_t process(const Options& options, const NetworkTable& table, Network& network,
                    const std::vector<std::string>& pictures, int capacity,
                    const std::vector<std::unique_ptr<Sink>>& sinks) {
  Batch batch(table, capacity, options.norm);
  PictureStream stream(pictures, table, options.threads, capacity + options.threads);
  const bool scrolls = printsLines(options) && isatty(STDOUT_FILENO) != 0;
  Progress progress(pictures.size(), isatty(STDERR_FILENO) != 0 && !scrolls);
  std::vector<std::string> waiting;
  const auto runBatch = [&] {
    batch.resize(static_cast<int>(waiting.size()));
    batch.pass(network);
    for (int i = 0; i < batch.size(); ++i)
      for (const auto& sink : sinks) sink->take(waiting[i], batch, i);
    if (std::fflush(stdout) != 0) throw Failure("standard output: cannot be written");
    progress.add(waiting.size());
    waiting.clear();
  };
  // Without the others, there is nothing to go on with.
  const bool strict = options.strict || !options.compared.empty() || pictures.size() == 1;
  std::size_t unreadable = 0;
  for (const std::string& picture : pictures) {
    const PictureStream::Decoded decoded = stream.take();
    if (decoded.fault.empty()) {
      std::copy(decoded.pixels.begin(), decoded.pixels.end(),
                batch.images(static_cast<int>(waiting.size())));
      waiting.push_back(picture);
      if (static_cast<int>(waiting.size()) == capacity) runBatch();
    } else {
      if (strict) throw Failure(decoded.fault);
      warn(decoded.fault);
      ++unreadable;
      progress.add(1);
    }
  }
  if (!waiting.empty()) runBatch();
  return unreadable;
}

void run(const Options& options) {
  const KnownNetwork& known = findNetwork(options.network);
  const NetworkTable& table = *known.table;
  checkUsage(options, table);
  const std::vector<std::string> pictures = picturesOf(options);
  // What the user may have to mend comes before what takes long.
  const std::vector<std::unique_ptr<Sink>> sinks = sinksFor(options, table, pictures);
  requireWeights(options.weights, table, options.prefix);
  chosenDevice(listDevices());

  const int batch = static_cast<int>(std::min<std::size_t>(options.batch, pictures.size()));
  std::size_t unreadable = 0;
  double seconds = 0;
  try {
    const QuietLibrary quiet;
    const GPU gpu;
    known.with(options.weights, batch, options.prefix, [&](Network& network) {
      const Timer timer;
      unreadable = process(options, table, network, pictures, batch, sinks);
      seconds = timer.milliseconds() / 1000;
    });
  } catch (const Failure&) {
    throw;
  } catch (...) {
    throw Failure(options.network + " with " + options.weights + " for batches of " +
                  std::to_string(batch) + ": " + describeException());
  }
  const std::size_t rows = pictures.size() - unreadable;
  for (const auto& sink : sinks)
    if (rows > 0) sink->finish();
  if (!options.features.empty() && rows > 0 && !printsLines(options)) {
    std::printf("%s: %zu rows of %d values, %.1f pictures/s\n", printable(options.features).c_str(),
                rows, table.outputCount(), static_cast<double>(rows) / seconds);
  }
  if (unreadable > 0) {
    throw Failure(std::to_string(unreadable) + " of " + std::to_string(pictures.size()) +
                  " pictures could not be read");
  }
}

}  // namespace

void addRun(CLI::App& tool) {
  CLI::App* command = tool.add_subcommand("run", "Run a network on pictures");
  const auto options = std::make_shared<Options>();
  const auto outputs = "Results", inputs = "Pictures";
  addNetworkArgument(*command, options->network);
  CLI::Option* images =
      command->add_option("IMAGE", options->images, "PNG or JPEG files, or directories of them");
  command->add_option("-w,--weights", options->weights, "Weight file")
      ->required()
      ->type_name("FILE");
  addPrefixOption(*command, options->prefix);
  command->add_option("--batch", options->batch, "Most pictures for one call of the network")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()))
      ->type_name("N")
      ->capture_default_str();

  CLI::Option* list =
      command->add_option("--list", options->list, "Text file of one picture a line; - reads stdin")
          ->type_name("FILE")
          ->group(inputs);
  command->add_flag("--strict", options->strict, "Stop at the first picture that cannot be read")
      ->group(inputs);
  options->threads = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1U, 16U));
  command->add_option("--threads", options->threads, "Decode pictures on so many threads")
      ->check(CLI::Range(1, 256))
      ->type_name("N")
      ->capture_default_str()
      ->group(inputs);

  command->add_option("--format", options->format, "Of the lines; a table unless given")
      ->check(CLI::IsMember(rowFormats))
      ->type_name("F")
      ->group(outputs);
  CLI::Option* norm =
      command->add_flag("--norm", options->norm, "The network's second result as well")
          ->group(outputs);
  CLI::Option* features =
      command->add_option("--features", options->features, "Write a NumPy array, a row a picture")
          ->type_name("FILE.npy")
          ->group(outputs);
  CLI::Option* draw =
      command->add_option("--draw", options->drawings, "Write each picture with its 68 landmarks")
          ->type_name("DIR")
          ->group(outputs);
  command
      ->add_option("--layout", options->layout, "Landmarks as x0 y0 x1 ..., or all x, then all y")
      ->check(CLI::IsMember({"xyxy", "xxyy"}))
      ->needs(draw)
      ->group(outputs);
  command->add_option("--scale", options->scale, "Pixels of the network's input for a value of 1")
      ->needs(draw)
      ->capture_default_str()
      ->group(outputs);
  command->add_option("--compare", options->compared, "Cosine similarity of two descriptors")
      ->expected(2)
      ->type_name("A B")
      ->excludes(images)
      ->excludes(list)
      ->excludes(norm)
      ->excludes(features)
      ->group(outputs);
  command->footer(
      "Directories are searched to the bottom, by name. Pictures are turned grey for a network of\n"
      "one channel, cropped around their centre to its aspect ratio, and resampled unless they "
      "have\n"
      "its size; an orientation tag is ignored. One that cannot be read is reported and left out,\n"
      "and makes the exit code 1. Results come in the order of the pictures.\n"
      "A table shows the first values of a long group; JSON, CSV and NumPy hold all of them.\n"
      "With --features, lines are printed only if --format is given, without the values.\n"
      "Example: facezoo run DexpressionNet -w weights.msgpack --format json face.jpg\n"
      "Example: facezoo run LCNN29 -w lcnn.msgpack --features descriptors.npy faces/\n"
      "Example: facezoo run LCNN29 -w lcnn.msgpack --compare one.jpg other.jpg\n"
      "Example: facezoo run FANet -w fa.msgpack --draw drawn --layout xyxy --scale 224 faces/");
  command->callback([options] { run(*options); });
}
