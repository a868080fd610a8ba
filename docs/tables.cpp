/// @file
/// Copies a page from standard input to standard output and puts in place what it says between
/// `<!-- generated: NAME -->` and `<!-- end -->`: the table NAME, made from what the networks are
/// made of.

#include "network_list.h"

#include <iostream>
#include <limits>
#include <map>
#include <sstream>
#include <stdexcept>

namespace {

using namespace facezoo;

const char* kindName(LayerKind kind) {
  switch (kind) {
    case LayerKind::meanImage:
      return "mean image";
    case LayerKind::fusedConvolution:
      return "convolution, ReLU";
    case LayerKind::convolution:
      return "convolution";
    case LayerKind::batchNormalization:
      return "batch normalization";
    case LayerKind::innerProduct:
      return "fully connected";
    case LayerKind::projection:
      return "projection";
    case LayerKind::channelMean:
    case LayerKind::noMean:
    case LayerKind::normalizedConvolution:
    case LayerKind::inceptionV1:
    case LayerKind::inceptionV3_1:
    case LayerKind::inceptionV3_2:
    case LayerKind::inceptionMFM:
      break;
  }
  throw std::logic_error("a layer without arrays of its own");
}

template <class Numbers>
std::string product(const Numbers& factors) {
  std::ostringstream text;
  for (const auto& factor : factors) text << (text.tellp() == 0 ? "" : " × ") << factor;
  return text.str();
}

/// A number of MiB, which is not to look smaller than it is.
std::string mebibytes(long long bytes) {
  const long long tenths = (bytes * 10 + (1 << 20) - 1) >> 20;
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

struct Totals {
  int arrays = 0;
  long long elements = 0;
};
Totals totals(const NetworkTable& network) {
  Totals all;
  forEachWeight(network.layers, "", [&](const std::string&, std::size_t elements, auto&&...) {
    ++all.arrays;
    all.elements += static_cast<long long>(elements);
  });
  return all;
}

void printNetworks(std::ostream& out) {
  out << "| network | channels × width × height | floats per image in `out1` | memory of `out1` | "
         "norm in `out2` | `getOutputDim()` |\n|---|---|---|---|---|---|\n";
  for (const NetworkTable* network : networkTables) {
    out << "| `" << network->name << "` | "
        << product(std::array<int, 3>{network->channels, network->width, network->height}) << " | "
        << network->outputCount() << " | "
        << (network->memory == Results::onHost ? "host" : "device") << " | "
        << (network->hasNorm ? "yes" : "no") << " | " << network->outputDim << " |\n";
  }
}

void printOutputs(std::ostream& out) {
  out << "| network | position in an image's floats | group |\n|---|---|---|\n";
  for (const NetworkTable* network : networkTables) {
    int position = 0;
    for (const OutputGroup& group : network->outputs) {
      out << "| `" << network->name << "` | " << position;
      if (group.count > 1) out << " to " << position + group.count - 1;
      out << " | " << group.name << " |\n";
      position += group.count;
    }
  }
}

void printMemory(std::ostream& out) {
  constexpr int batches[] = {1, 8, 32, 128};
  out << "| network | weights | block, bytes per image | blocks |";
  for (const int batch : batches) out << " pool for " << batch << " |";
  out << " largest `maxBatch` | pool for it |\n|---|---|---|---|---|---|---|---|---|---|\n";
  for (const NetworkTable* network : networkTables) {
    const auto pool = [network](long long batch) {
      return mebibytes(batch * network->perImageBytes * network->bufferCount);
    };
    const int most = std::numeric_limits<int>::max() / network->perImageBytes;
    out << "| `" << network->name << "` | " << mebibytes(totals(*network).elements * 4) << " | "
        << network->perImageBytes << " | " << network->bufferCount;
    for (const int batch : batches) out << " | " << pool(batch);
    out << " | " << most << " | " << pool(most) << " |\n";
  }
}

void printWeightTotals(std::ostream& out) {
  out << "| network | arrays | elements | bytes |\n|---|---|---|---|\n";
  for (const NetworkTable* network : networkTables) {
    const Totals all = totals(*network);
    out << "| `" << network->name << "` | " << all.arrays << " | " << all.elements << " | "
        << all.elements * 4 << " |\n";
  }
}

void printWeights(std::ostream& out) {
  for (const NetworkTable* network : networkTables) {
    out << "\n### " << network->name << "\n\n| name | layer | shape | elements | bytes |\n"
        << "|---|---|---|---|---|\n";
    forEachWeight(
        network->layers, "",
        [&](const std::string& name, std::size_t elements, const LayerRow& row, WeightRole role) {
          out << "| `" << name << "` | " << kindName(row.kind) << " | "
              << product(weightShape(row, role)) << " | " << elements << " | " << elements * 4
              << " |\n";
        });
  }
}

const std::map<std::string, void (*)(std::ostream&)> tables = {{"networks", printNetworks},
                                                               {"outputs", printOutputs},
                                                               {"memory", printMemory},
                                                               {"weight totals", printWeightTotals},
                                                               {"weights", printWeights}};

void fillPage(std::istream& in, std::ostream& out) {
  const std::string opening = "<!-- generated: ", closing = " -->", end = "<!-- end -->";
  for (std::string line; std::getline(in, line);) {
    out << line << '\n';
    if (line.rfind(opening, 0) != 0) continue;
    const std::string name =
        line.substr(opening.size(), line.size() - opening.size() - closing.size());
    const auto table = tables.find(name);
    if (table == tables.end()) throw std::runtime_error("there is no table " + name);
    table->second(out);
    while (line != end)
      if (!std::getline(in, line)) throw std::runtime_error("no end of the table " + name);
    out << line << '\n';
  }
}

}  // namespace

int main() {
  try {
    fillPage(std::cin, std::cout);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "facezoo-doc-tables: " << error.what() << '\n';
    return 1;
  }
}
