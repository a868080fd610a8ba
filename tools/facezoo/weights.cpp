#include "arguments.h"
#include "commands.h"
#include "failure.h"
#include "files.h"
#include "networks.h"
#include "synthesis.h"
#include "weight_document.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace {

struct Options {
  std::string network, file, prefix;
  std::uint64_t seed = 1;
};

void synthesize(const Options& options) {
  NewFile file(options.file);
  writeRandomWeights(*findNetwork(options.network).table, options.prefix, options.seed,
                     file.stream());
  file.keep();
  std::printf("%s: weights of %s, seed %ju\n", printable(options.file).c_str(),
              options.network.c_str(), std::uintmax_t{options.seed});
}

void check(const Options& options) {
  const WeightFindings findings = checkWeights(WeightDocument(options.file),
                                               *findNetwork(options.network).table, options.prefix);
  for (const std::string& fault : findings.faults)
    std::printf("fault   %s\n", printable(fault).c_str());
  for (const std::string& name : findings.unused)
    std::printf("unused  %s\n", printable(name).c_str());
  if (!findings.faults.empty()) {
    throw Failure(options.file + ": " + std::to_string(findings.faults.size()) + " of " +
                  std::to_string(findings.expected) + " arrays of " + options.network +
                  " are faulty or missing");
  }
  std::printf("OK: %zu arrays of %s, %zu unused\n", findings.expected, options.network.c_str(),
              findings.unused.size());
}

void show(const Options& options) {
  const WeightDocument document(options.file);
  int width = 4;
  for (const WeightArray& array : document.arrays())
    width = std::max(width, static_cast<int>(array.name.size()));
  std::printf("%-*s  type        bytes   elements           min          mean           max\n",
              width, "name");
  for (const WeightArray& array : document.arrays()) {
    std::printf("%-*s  %-5s", width, printable(array.name).c_str(), array.type);
    if (array.payload.data() != nullptr) {
      const FloatSummary floats = summarize(array.payload);
      std::printf(" %10zu %10zu %13.6g %13.6g %13.6g", array.payload.size(), floats.count,
                  floats.min, floats.mean, floats.max);
      if (floats.notFinite > 0) std::printf("  and %zu NaN or infinite", floats.notFinite);
      if (array.payload.size() % sizeof(float) != 0) std::printf("  not whole floats");
    }
    std::printf("\n");
  }
}

// Conversion alone would wrap a negative number around.
std::string wholeNumber(const std::string& text) {
  if (text.find_first_not_of("0123456789") == std::string::npos) return {};
  return "expected a whole number, found " + text;
}

}  // namespace

void addWeights(CLI::App& tool) {
  CLI::App* weights = tool.add_subcommand("weights", "Create, check or list weight files");
  weights->require_subcommand(1);
  weights->footer("Example: facezoo weights check DexpressionNet weights.msgpack");
  const auto options = std::make_shared<Options>();
  const auto add = [&](const char* name, const char* does, void (*command)(const Options&),
                       const char* example) {
    CLI::App* sub = weights->add_subcommand(name, does);
    sub->footer(std::string("Example: facezoo weights ") + name + " " + example);
    sub->callback([options, command] { command(*options); });
    return sub;
  };

  CLI::App* synth =
      add("synth", "Write a file of seeded random weights, scaled to give sane results", synthesize,
          "DexpressionNet -o weights.msgpack --seed 7");
  addNetworkArgument(*synth, options->network);
  synth->add_option("-o,--output", options->file, "File to write, complete or not at all")
      ->required()
      ->type_name("FILE");
  synth->add_option("--seed", options->seed, "Same seed, same file")
      ->type_name("S")
      ->check(wholeNumber)
      ->capture_default_str();
  addPrefixOption(*synth, options->prefix);

  CLI::App* checked = add(
      "check", "List every array that is missing, mis-sized, of a wrong type, not finite or unused",
      check, "DexpressionNet weights.msgpack");
  addNetworkArgument(*checked, options->network);
  checked->add_option("FILE", options->file, "Weight file")->required();
  addPrefixOption(*checked, options->prefix);

  CLI::App* shown = add("show", "List what a weight file holds", show, "weights.msgpack");
  shown->add_option("FILE", options->file, "Weight file")->required();
}
