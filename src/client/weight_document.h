/// @file
#pragma once

#include "network_table.h"

#include <msgpack.hpp>

#include <cstddef>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace facezoo {

/// One entry of a weight file.
struct WeightArray {
  std::string_view name;     ///< of a key that is no string, a text that says so
  bool named;                ///< whether the key is a string
  const char* type;          ///< the MessagePack type of the value; networks take "str" only
  std::string_view payload;  ///< of a str or bin; empty for other types

  bool loadable() const { return std::string_view(type) == "str"; }
};

/// Statistics of the floats of a payload.
struct FloatSummary {
  std::size_t count = 0;
  std::size_t notFinite = 0;  ///< not counted in what follows
  float min = 0, max = 0;
  double mean = 0;
};
FloatSummary summarize(std::string_view payload);

/// As in "[64, 3, 7, 7]".
std::string describeShape(const std::vector<std::size_t>& shape);

/// What is wrong with an array of which `notFinite` elements are NaN or infinite; empty if none is.
std::string describeNotFinite(std::size_t notFinite, std::size_t elements);

/// The first of the faults, in one line.
std::string joinFaults(const std::vector<std::string>& faults);

/// A weight file, parsed without a device.
class WeightDocument {
 public:
  /// @throws Failure if the file does not hold a MessagePack map
  explicit WeightDocument(const std::string& path);
  /// Takes a document that was parsed from `path` elsewhere and outlives this. @throws Failure
  /// likewise
  WeightDocument(const msgpack::v1::object& root, const std::string& path);

  std::size_t size() const { return root_.via.map.size; }
  /// Entry `i` in the order of the file.
  WeightArray operator[](std::size_t i) const;

 private:
  msgpack::v1::unpacked document_;
  msgpack::v1::object root_;
};

/// The arrays that a network reads, in its order, each the first of its name; null where there is
/// none. For the other entries, unused(array) is called in the order of the file.
std::vector<std::optional<WeightArray>> arraysOf(
    const WeightDocument& document, const NetworkTable& network, const std::string& prefix,
    const std::function<void(const WeightArray&)>& unused = [](const WeightArray&) {});

/// Writes a weight file, array by array.
class WeightWriter {
 public:
  WeightWriter(std::ostream& out, std::size_t arrays);
  /// Begins an array, whose floats are given to `append`.
  void startArray(const std::string& name, std::size_t elements);
  void append(std::string_view floats);

 private:
  msgpack::packer<std::ostream> packer_;
};

struct WeightFindings {
  std::size_t expected = 0;         ///< arrays that the network needs
  std::vector<std::string> faults;  ///< why the network would not load, or not work
  std::vector<std::string> unused;  ///< names of entries that no layer reads, the first of them
  std::size_t unusedCount = 0;      ///< of all
  void addUnused(std::string_view name);

  /// All faults, of which each array of the network has one at most, and the first of the unused
  /// names: a line each.
  std::vector<std::string> lines() const;
  /// "OK: 19 arrays of NET, 0 unused", or how many are faulty.
  std::string verdict(const NetworkTable& network) const;
};
WeightFindings checkWeights(const WeightDocument& document, const NetworkTable& network,
                            const std::string& prefix);

/// Finds what a network's constructor would, but all of it and without a device.
/// @throws Failure that names the first faults of the file
void requireWeights(const WeightDocument& document, const std::string& path,
                    const NetworkTable& network, const std::string& prefix);

}  // namespace facezoo
