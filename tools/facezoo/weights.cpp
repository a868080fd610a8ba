#include "arguments.h"
#include "client/failure.h"
#include "client/file_kind.h"
#include "client/files.h"
#include "client/networks.h"
#include "client/synthesis.h"
#include "client/weight_document.h"
#include "client/weight_exchange.h"
#include "client/weight_names.h"
#include "commands.h"
#include "json_text.h"
#include "messages.h"
#include "rows.h"
#include "standard_output.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>

using namespace facezoo;

namespace {

struct Options {
  std::string network, file, output, prefix, names;
  std::uint64_t seed = 1;
  bool force = false;
};

const NetworkTable& tableOf(const Options& options) { return *findNetwork(options.network).table; }

/// The place of a command's output. To be called before the inputs are read, as it may be refused.
OutputPlace placeOf(const Options& options) {
  return Outputs({options.file, options.names}).claim(options.output, options.force);
}

void synthesize(const Options& options) {
  NewFile file(placeOf(options));
  writeRandomWeights(tableOf(options), options.prefix, options.seed, file.stream());
  file.keep();
  print("%s: weights of %s, seed %ju\n", printable(options.output).c_str(), options.network.c_str(),
        std::uintmax_t{options.seed});
}

/// Prints the findings. @throws Failure if there are faults
void report(const WeightFindings& findings, const Options& options,
            const std::string& advice = "") {
  for (const std::string& line : findings.lines()) print("%s\n", printable(line).c_str());
  if (!findings.faults.empty())
    throw Failure(options.file + ": " + findings.verdict(tableOf(options)) + advice);
}

void check(const Options& options) {
  expectWeightFile(options.file, options.network);
  const WeightDocument document(options.file);
  const WeightFindings findings = checkWeights(document, tableOf(options), options.prefix);
  report(findings, options, adviceOnPacking(document));
  print("%s\n", findings.verdict(tableOf(options)).c_str());
}

void printConverted(const std::vector<StoredTensor>& arrays, const Options& options) {
  std::size_t elements = 0;
  for (const StoredTensor& array : arrays) elements += array.elements();
  print("%s: %zu arrays of %s, %.1f MB, read back and equal\n", printable(options.output).c_str(),
        arrays.size(), options.network.c_str(),
        static_cast<double>(elements * sizeof(float)) / 1e6);
}

void importWeights(const Options& options) {
  OutputPlace place = placeOf(options);
  const NetworkTable& network = tableOf(options);
  TensorNames names;
  if (!options.names.empty()) names = readTensorNames(options.names, network, options.prefix);
  expectSafetensors(options.file);
  const TensorFile source(options.file);
  const TensorSelection selection = selectTensors(source.tensors(), network, options.prefix, names);
  report(selection.findings, options);
  saveWeights(selection.arrays, std::move(place));
  printConverted(selection.arrays, options);
}

void exportWeights(const Options& options) {
  OutputPlace place = placeOf(options);
  const NetworkTable& network = tableOf(options);
  expectWeightFile(options.file, options.network);
  const WeightDocument source(options.file);
  report(checkWeights(source, network, options.prefix), options, adviceOnPacking(source));
  const std::vector<StoredTensor> arrays = tensorsOf(source, network, options.prefix);
  saveSafetensors(arrays, options.network, std::move(place));
  printConverted(arrays, options);
}

/// Writes a JSON object of proposed names, which `import` takes when the user has checked it.
void writeNames(const Options& options) {
  std::optional<OutputPlace> place;
  if (!options.output.empty()) place = placeOf(options);
  const NetworkTable& network = tableOf(options);
  std::optional<TensorFile> source;
  if (!options.file.empty()) {
    expectSafetensors(options.file);
    source.emplace(options.file);
  }
  const auto& [names, byName, byShape, byOrder] = proposeNames(
      source ? source->tensors() : std::vector<StoredTensor>(), network, options.prefix);
  std::string text;
  for (const auto& [weight, tensor] : names) {
    text += (text.empty() ? "{\n  " : ",\n  ") + toJsonString(weight) + ": ";
    text += tensor ? toJsonString(*tensor) : "null";
  }
  text += "\n}\n";
  const std::string counts =
      std::to_string(byName) + " by name, " + std::to_string(byShape) + " by shape alone, " +
      std::to_string(byOrder) + " by order among equal shapes, " +
      std::to_string(names.size() - byName - byShape - byOrder) + " not at all";
  if (place) {
    NewFile file(std::move(*place));
    file.stream() << text;
    file.keep();
    print("%s: %zu names of %s, to be checked: %s\n", printable(options.output).c_str(),
          names.size(), options.network.c_str(), counts.c_str());
  } else {
    print("%s", text.c_str());
    if (source) warn("names to be checked, found " + counts);
  }
}

void printFloats(const FloatSummary& floats) {
  print(" %10zu %13.6g %13.6g %13.6g", floats.count, floats.min, floats.mean, floats.max);
  if (floats.notFinite > 0) print("  and %zu NaN or infinite", floats.notFinite);
}

void showTensors(const std::string& path) {
  const TensorFile file(path);
  std::size_t nameWidth = 4, shapeWidth = 5;
  for (const StoredTensor& tensor : file.tensors()) {
    nameWidth = std::max(nameWidth, widthOf(tensor.name));
    shapeWidth = std::max(shapeWidth, describeShape(tensor.shape).size());
  }
  print("%s  type     %s   elements           min          mean           max\n",
        padded("name", nameWidth).c_str(), padded("shape", shapeWidth).c_str());
  for (const StoredTensor& tensor : file.tensors()) {
    print("%s  %-7s  %s", padded(printable(tensor.name), nameWidth).c_str(), tensor.type.c_str(),
          padded(describeShape(tensor.shape), shapeWidth).c_str());
    if (holdsFloats(tensor)) {
      printFloats(summarize(tensor));
    } else {
      print(" %10zu", tensor.elements());
    }
    print("\n");
  }
}

void show(const Options& options) {
  if (isSafetensors(options.file)) return showTensors(options.file);
  expectWeightFile(options.file);
  const WeightDocument document(options.file);
  std::size_t width = 4;
  for (std::size_t i = 0; i < document.size(); ++i)
    width = std::max(width, widthOf(document[i].name));
  print("%s  type        bytes   elements           min          mean           max\n",
        padded("name", width).c_str());
  for (std::size_t i = 0; i < document.size(); ++i) {
    const WeightArray array = document[i];
    print("%s  %-5s", padded(printable(std::string(array.name)), width).c_str(), array.type);
    if (array.payload.data() != nullptr) {
      print(" %10zu", array.payload.size());
      printFloats(summarize(array.payload));
      if (array.payload.size() % sizeof(float) != 0) print("  not whole floats");
    }
    print("\n");
  }
}

}  // namespace

void addWeights(CLI::App& tool) {
  CLI::App* weights = tool.add_subcommand("weights", "Create, check, convert or list weight files");
  weights->require_subcommand(1);
  weights->footer("Example: facezoo weights check DexpressionNet weights.msgpack");
  const auto options = std::make_shared<Options>();
  const auto add = [&](const char* name, const char* does, void (*command)(const Options&),
                       const std::string& example, const std::string& notes = "") {
    CLI::App* sub = weights->add_subcommand(name, does);
    sub->footer(std::string("Example: facezoo weights ") + name + " " + example + notes);
    sub->callback([options, command] { command(*options); });
    return sub;
  };
  const auto addFile = [&](CLI::App& sub, const char* what) {
    sub.add_option("FILE", options->file, what)->required();
  };
  const auto addOutput = [&](CLI::App& sub, bool required = true) {
    sub.add_option("-o,--output", options->output, "File to write, complete or not at all")
        ->required(required)
        ->type_name("FILE");
    addForceOption(sub, options->force);
  };

  CLI::App* synth =
      add("synth", "Write a file of seeded random weights, scaled to give sane results", synthesize,
          "DexpressionNet -o weights.msgpack --seed 7");
  addNetworkArgument(*synth, options->network);
  addOutput(*synth);
  synth->add_option("--seed", options->seed, "Same seed, same file")
      ->type_name("S")
      ->transform(wholeNumber(0, std::numeric_limits<std::uint64_t>::max()))
      ->capture_default_str();
  addPrefixOption(*synth, options->prefix);

  CLI::App* checked = add(
      "check", "List every array that is missing, mis-sized, of a wrong type, not finite or unused",
      check, "DexpressionNet weights.msgpack",
      "\nA weight file is a MessagePack map of names to the bytes of 32-bit floats, as str. "
      "Networks"
      "\nread their arrays by prefix and name, and leave what else is in the file alone.");
  addNetworkArgument(*checked, options->network);
  addFile(*checked, "Weight file");
  addPrefixOption(*checked, options->prefix);

  CLI::App* imported =
      add("import", "Write the weight file of what a safetensors file holds", importWeights,
          "LCNN29 model.safetensors -o lcnn.msgpack --names names.json",
          "\nTensors are F32, F16 or BF16, which widen exactly, of shape [out, in, row, column] or"
          "\n[out, in]; sizes of 1 make no difference. Each is named as in the weight file, prefix"
          "\nincluded; MAP is for other names, and `weights names` begins one:"
          "\n  {\"conv1-0\": \"features.0.weight\", \"conv1-1\": \"features.0.bias\"}");
  addNetworkArgument(*imported, options->network);
  addFile(*imported, "Safetensors file");
  addOutput(*imported);
  imported->add_option("--names", options->names, "JSON object of weight names to tensor names")
      ->type_name("MAP");
  addPrefixOption(*imported, options->prefix);

  CLI::App* named = add(
      "names", "Propose which tensors of a safetensors file a network's weights are", writeNames,
      "LCNN29 model.safetensors -o proposed.json",
      "\nWrites a JSON object, MAP of `weights import`, of every weight of the network:"
      "\nto the tensor that is called like it, or that alone has its shape; of equal ones, in"
      "\ntheir order. Check these. null is a weight without a tensor, as all are without FILE.");
  addNetworkArgument(*named, options->network);
  named->add_option("FILE", options->file, "Safetensors file");
  addOutput(*named, false);
  addPrefixOption(*named, options->prefix);

  CLI::App* exported =
      add("export", "Write the safetensors file of a network's weights", exportWeights,
          "LCNN29 lcnn.msgpack -o model.safetensors",
          "\nTensors are F32, in the network's order, named as in the weight file, prefix included."
          "\nA weight file that `check` finds faulty is not exported.");
  addNetworkArgument(*exported, options->network);
  addFile(*exported, "Weight file");
  addOutput(*exported);
  addPrefixOption(*exported, options->prefix);

  CLI::App* shown =
      add("show", "List what a weight file or a safetensors file holds", show, "weights.msgpack");
  addFile(*shown, "Weight file or safetensors file");
}
