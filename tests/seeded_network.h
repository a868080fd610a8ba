/// @file
/// A whole network on seeded weights, for tests of the contract rather than of the numbers.
#pragma once

#include "DexpressionNet.h"
#include "network_table.h"
#include "support.h"

#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace facezoo::test {

inline Document seededDocument(const NetworkTable& table, const std::string& prefix = "") {
  Document document;
  unsigned seed = 1;
  forEachWeight(
      table.layers, prefix,
      [&](const std::string& name, std::size_t elements, const LayerRow& layer, WeightRole role) {
        // Keeps activations at their scale, and the last products where softmax can tell
        // them apart.
        const double gain = layer.kind == LayerKind::innerProduct ? 0.01 : 1;
        const double range =
            role == WeightRole::filter ? gain * std::sqrt(6.0 * layer.out / elements) : 1;
        document.add(name, seededValues(elements, seed++, -range, range));
      });
  return document;
}

/// The weight file of `table`, written once for the process.
inline const std::string& seededFile(const NetworkTable& table) {
  static const TemporaryFile file;
  static const bool written = (seededDocument(table).save(file.path), true);
  (void)written;
  return file.path;
}

inline std::vector<std::uint8_t> seededImages(const NetworkTable& table, int batch) {
  return seededBytes(static_cast<std::size_t>(batch) * table.channels * table.width * table.height,
                     7);
}

/// Reaches what hosts cannot.
struct NetworkProbe : DexpressionNet {
  static int count() { return network_count; }
};

}  // namespace facezoo::test
