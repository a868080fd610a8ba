#include "run.h"
#include "arguments.h"
#include "client/batch.h"
#include "client/devices.h"
#include "client/failure.h"
#include "client/loading.h"
#include "client/networks.h"
#include "client/picture_stream.h"
#include "commands.h"
#include "facezoo.h"
#include "facezoo/listener.h"
#include "messages.h"
#include "npy_file.h"
#include "pictures.h"
#include "progress.h"
#include "rows.h"
#include "standard_output.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <unordered_map>

using namespace facezoo;

namespace fs = std::filesystem;

namespace {

[[noreturn]] void refuse(const std::string& option, const std::string& why) {
  throw CLI::ValidationError(option, why);
}

/// Checks what the parser cannot know: which options fit which network.
void checkUsage(const RunOptions& options, const NetworkTable& table) {
  const auto gives = [&](const char* group) {
    return std::any_of(table.outputs.begin(), table.outputs.end(),
                       [&](const OutputGroup& found) { return std::string(found.name) == group; });
  };
  const std::string network = table.name;
  requireBatch(table, options.batch);
  if (options.norm && !table.hasNorm) refuse("--norm", network + " gives no norm");
  if (!options.channels.empty() && table.channels == 1)
    refuse("--channels", "expected a network that takes colours, found " + network);
  if (!options.compared.empty() && !gives("features"))
    refuse("--compare", "expected a network that gives a descriptor, found " + network);
  if (!options.drawings.empty() && !gives("landmarks"))
    refuse("--draw", "expected a network that gives landmarks, found " + network);
  if (!options.drawings.empty() && options.layout.empty())
    refuse("--draw", "expected --layout too, as only the weights' training tells it");
  if (!options.features.empty() && fs::path(options.features).extension() != ".npy")
    refuse("--features", "expected a name that ends in .npy, found " + options.features);
  if (options.resume && options.features.empty() && options.output.empty())
    refuse("--resume", "expected --features or --output, whose files it goes on with");
  if (options.images.empty() && options.list.empty() && options.compared.empty())
    refuse("IMAGE", "expected pictures, a directory, --list or --compare, found none");
}

FoundPictures picturesOf(const RunOptions& options) {
  if (!options.compared.empty()) return {options.compared, {}, {}, {}};
  std::vector<std::string> paths = options.images;
  if (!options.list.empty())
    for (std::string& line : readList(options.list, options.null ? '\0' : '\n'))
      paths.push_back(std::move(line));
  return findPictures(paths);
}

/// All files that a run reads.
std::vector<std::string> inputsOf(const RunOptions& options, std::vector<std::string> pictures) {
  std::vector<std::string> inputs = std::move(pictures);
  inputs.insert(inputs.end(), {options.weights, options.list == "-" ? "/dev/stdin" : options.list});
  if (!options.gallery.empty())
    inputs.insert(inputs.end(), {options.gallery, namesFileOf(options.gallery)});
  return inputs;
}

/// What must be the same for a run to go on with the files of another: all that the results and
/// their form depend on.
std::string describeRun(const RunOptions& options, const NetworkTable& table) {
  std::error_code error;
  nlohmann::ordered_json run = {
      {"tool", FACEZOO_VERSION_TEXT},
      {"network", table.name},
      {"weight_file_bytes", fs::file_size(options.weights, error)},
      {"weight_file_time", fs::last_write_time(options.weights, error).time_since_epoch().count()},
      {"prefix", options.prefix},
      {"values", table.outputCount()},
      {"norm", options.norm},
      {"channels", options.channels.empty() ? "rgb" : options.channels},
      {"no_orient", options.noOrient},
      {"format", options.format},
      {"draw", options.drawings},
      {"layout", options.layout},
      {"scale", options.scale},
      {"files", resultPaths(options)}};
  return run.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

/// The pictures that have no result yet; one that is listed twice has to have two.
std::vector<std::string> withoutResults(const std::vector<std::string>& earlier,
                                        const std::vector<std::string>& pictures) {
  std::unordered_map<std::string, std::size_t> results;
  for (const std::string& picture : earlier) ++results[picture];
  std::vector<std::string> left;
  for (const std::string& picture : pictures) {
    const auto found = results.find(picture);
    if (found == results.end() || found->second == 0) {
      left.push_back(picture);
    } else {
      --found->second;
    }
  }
  return left;
}

std::string describeFault(const std::string& picture, const std::exception_ptr& fault) {
  try {
    std::rethrow_exception(fault);
  } catch (const Failure& failure) {
    return failure.what();
  } catch (...) {
    return picture + ": " + describeException();
  }
}

/// Takes the pictures through a network in full batches. @return how many could not be read
std::size_t process(const RunOptions& options, const NetworkTable& table, Network& network,
                    const std::vector<std::string>& pictures, int capacity, bool strict,
                    const std::vector<std::unique_ptr<Sink>>& sinks, ResultFiles& files,
                    PictureLimits& limits) {
  Batch batch(table, capacity, options.norm);
  PictureStream stream(pictures, table, readingOf(options), limits, options.threads,
                       capacity + options.threads, !options.drawings.empty());
  const bool scrolls = (printsLines(options) || !options.gallery.empty()) &&
                       options.output.empty() && isatty(STDOUT_FILENO) != 0;
  Progress progress(pictures.size(), isatty(STDERR_FILENO) != 0 && !scrolls);
  std::vector<std::string> waiting;
  std::vector<std::optional<Picture>> whole;
  const auto runBatch = [&] {
    batch.resize(static_cast<int>(waiting.size()));
    batch.pass(network);
    for (int i = 0; i < batch.size(); ++i)
      for (const auto& sink : sinks) sink->take({waiting[i], whole[i], batch, i});
    files.add(waiting);
    std::cout.flush();
    progress.add(waiting.size());
    waiting.clear();
    whole.clear();
  };
  std::size_t unreadable = 0;
  for (const std::string& picture : pictures) {
    PictureStream::Decoded decoded = stream.take();
    if (decoded.fault == nullptr) {
      std::copy(decoded.pixels.begin(), decoded.pixels.end(),
                batch.images(static_cast<int>(waiting.size())));
      waiting.push_back(picture);
      whole.push_back(std::move(decoded.whole));
      if (static_cast<int>(waiting.size()) == capacity) runBatch();
    } else {
      const std::string fault = describeFault(picture, decoded.fault);
      if (strict) throw Failure(fault);
      warn(fault);
      ++unreadable;
      progress.add(1);
    }
  }
  if (!waiting.empty()) runBatch();
  return unreadable;
}

}  // namespace

void run(const RunOptions& options) {
  const KnownNetwork& known = findNetwork(options.network);
  const NetworkTable& table = *known.table;
  checkUsage(options, table);
  const FoundPictures found = picturesOf(options);
  const std::vector<std::string>& pictures = found.paths;
  for (const std::string& fault : found.faults) {
    if (options.strict) throw Failure(fault);
    warn(fault);
  }
  // All that the user may have to mend is checked before anything that takes long.
  const std::vector<std::string> paths = resultPaths(options);
  Outputs outputs(inputsOf(options, pictures));
  const std::unique_ptr<ResultFiles> files =
      options.resume ? resumableFiles(paths, outputs, describeRun(options, table))
                     : wholeFiles(paths, outputs, options.force);
  const std::vector<std::string> left = withoutResults(files->earlier(), pictures);
  PictureLimits limits(options.maxPixels);
  const std::vector<std::unique_ptr<Sink>> sinks =
      sinksFor(options, table, pictures, found.places, outputs, *files, limits);
  chosenDevice(listDevices());

  const int batch = static_cast<int>(std::min<std::size_t>(options.batch, pictures.size()));
  // A picture that cannot be read leaves nothing to compare, or to run at all.
  const bool strict = options.strict || !options.compared.empty() || pictures.size() == 1;
  std::size_t unreadable = 0;
  double seconds = 0;
  try {
    const Listener quiet;
    const GPU gpu;
    const auto network = makeCheckedNetwork(known, options.weights, batch, options.prefix);
    const Timer timer;
    unreadable = process(options, table, *network, left, batch, strict, sinks, *files, limits);
    seconds = timer.milliseconds() / 1000;
  } catch (const Failure&) {
    throw;
  } catch (...) {
    throw Failure(options.network + " with " + options.weights + " for batches of " +
                  std::to_string(batch) + ": " + describeException());
  }
  const std::size_t added = left.size() - unreadable;
  const std::size_t rows = files->earlier().size() + added;
  if (rows > 0) {
    for (const auto& sink : sinks) sink->finish();
    files->keep();
  }
  if (!paths.empty() && rows > 0 && (!printsLines(options) || !options.output.empty())) {
    const std::string values =
        options.features.empty() ? "" : " of " + std::to_string(table.outputCount()) + " values";
    const std::string earlier =
        options.resume ? std::to_string(files->earlier().size()) + " from before, " : "";
    print("%s: %zu %s%s, %s%.1f pictures/s\n", printable(paths.back()).c_str(), rows,
          rows == 1 ? "row" : "rows", values.c_str(), earlier.c_str(),
          static_cast<double>(added) / seconds);
  }
  for (const std::string& remark : found.remarks) warn(remark);
  if (unreadable > 0) {
    throw Failure(std::to_string(unreadable) + " of " + std::to_string(pictures.size()) +
                  " pictures could not be read");
  }
  if (!found.faults.empty())
    throw Failure("a folder could not be read: the results lack its pictures");
}

void addPictureOptions(CLI::App& command, RunOptions& options, bool weightsRequired) {
  const auto inputs = "Pictures";
  command.add_option("IMAGE", options.images,
                     "PNG or JPEG files, or folders, searched to the bottom");
  command.add_option("-w,--weights", options.weights, "Weight file of the network")
      ->required(weightsRequired)
      ->type_name("FILE");
  addPrefixOption(command, options.prefix);
  command
      .add_option("--batch", options.batch,
                  "How many pictures go through the network at once, at most")
      ->transform(wholeNumber(1, std::numeric_limits<int>::max()))
      ->type_name("N")
      ->capture_default_str();

  CLI::Option* list = command.add_option(
      "--list", options.list, "Read picture names from a file, one a line; - is standard input");
  list->type_name("FILE")->group(inputs);
  command
      .add_flag("--null", options.null,
                "The names in the list end in null characters, not line feeds")
      ->needs(list)
      ->group(inputs);
  command
      .add_option("--channels", options.channels,
                  "Colour order that the weights were trained with; default rgb")
      ->check(CLI::IsMember({"rgb", "bgr"}))
      ->type_name("C")
      ->group(inputs);
  command
      .add_flag("--no-orient", options.noOrient,
                "Ignore the Exif orientation: take pictures as they are stored")
      ->group(inputs);
  command
      .add_option("--max-pixels", options.maxPixels,
                  "Refuse pictures of more pixels; all threads together decode in 8 bytes for each")
      ->check(CLI::Range(1, PictureLimits::kLargestPixels))
      ->type_name("N")
      ->capture_default_str()
      ->group(inputs);
  command
      .add_flag("--strict", options.strict,
                "Stop at the first picture that cannot be read, instead of skipping it")
      ->group(inputs);
  options.threads = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1U, 16U));
  command.add_option("--threads", options.threads, "Threads that decode pictures")
      ->transform(wholeNumber(1, 256))
      ->type_name("N")
      ->capture_default_str()
      ->group(inputs);
}

void addOutputOptions(CLI::App& command, RunOptions& options, const std::string& group) {
  command.add_option("--format", options.format, "How to print the results; default table")
      ->check(CLI::IsMember(rowFormats))
      ->type_name("F")
      ->group(group);
  command.add_option("-o,--output", options.output, "Print to a file instead of standard output")
      ->type_name("FILE")
      ->group(group);
  addForceOption(command, options.force)->group(group);
}

void addRun(CLI::App& tool) {
  CLI::App* command = tool.add_subcommand("run", "Run a network on pictures");
  const auto options = std::make_shared<RunOptions>();
  const auto outputs = "Results";
  addNetworkArgument(*command, options->network);
  addPictureOptions(*command, *options, true);
  addOutputOptions(*command, *options, outputs);
  command->add_flag("--norm", options->norm, "Also print the L2 norm that the network computes")
      ->group(outputs);
  command
      ->add_option("--features", options->features,
                   "Write the results to a NumPy array, one row per picture")
      ->type_name("FILE.npy")
      ->group(outputs);
  command
      ->add_flag("--resume", options->resume,
                 "Continue a stopped run: keep its rows, add the missing ones")
      ->group(outputs);
  CLI::Option* draw =
      command
          ->add_option("--draw", options->drawings,
                       "Write each picture, with its 68 landmarks drawn in, to a folder")
          ->type_name("DIR")
          ->group(outputs);
  command
      ->add_option("--layout", options->layout,
                   "Order of the landmark values: x0 y0 x1 y1 ..., or all x, then all y")
      ->check(CLI::IsMember({"xyxy", "xxyy"}))
      ->needs(draw)
      ->group(outputs);
  command
      ->add_option("--scale", options->scale,
                   "How many pixels of the network's input a landmark value of 1 is")
      ->check(positiveNumber())
      ->needs(draw)
      ->capture_default_str()
      ->group(outputs);
  command
      ->add_option("--compare", options->compared,
                   "Print how similar the descriptors of two or more pictures are")
      ->expected(-2)  // at least
      ->type_name("A B")
      ->excludes("IMAGE")
      ->excludes("--list")
      ->excludes("--norm")
      ->excludes("--features")
      ->excludes("--resume")
      ->group(outputs);
  command->footer(
      "Directories are searched to the bottom, by name; links are followed. Pictures are turned\n"
      "upright, as their Exif orientation says, turned grey for a network of one channel, cropped\n"
      "around their centre to its aspect ratio, and resampled unless they have its size. A "
      "picture\n"
      "or folder that cannot be read is reported and left out, and makes the exit code 1.\n"
      "Results come in the order of the pictures.\n"
      "A table shows the first values of a long group; JSON, CSV and NumPy hold all of them.\n"
      "With --features, lines are printed only if --format is given, without the values.\n"
      "Example: facezoo run DexpressionNet -w weights.msgpack --format json face.jpg\n"
      "Example: facezoo run LCNN29 -w lcnn.msgpack --features descriptors.npy faces/\n"
      "Example: facezoo run LCNN29 -w lcnn.msgpack --features faces.npy --resume faces/\n"
      "Example: facezoo run LCNN29 -w lcnn.msgpack --compare one.jpg other.jpg\n"
      "Example: facezoo run FANet -w fa.msgpack --draw drawn --layout xyxy --scale 224 faces/");
  command->callback([options] { run(*options); });
}
