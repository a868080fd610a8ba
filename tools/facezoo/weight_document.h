/// @file
#pragma once

#include "file_bytes.h"
#include "network_table.h"

#include <msgpack.hpp>

#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// One entry of a weight file.
struct WeightArray {
  std::string name;          ///< printable stand-in if the key is not a string
  bool named;                ///< the key is a string
  const char* type;          ///< the MessagePack type of the value; networks take "str" only
  std::string_view payload;  ///< of a str or bin; empty for other types

  bool loadable() const { return std::string_view(type) == "str"; }
};

/// What can be said of the floats of a payload.
struct FloatSummary {
  std::size_t count = 0;
  std::size_t notFinite = 0;  ///< the rest is about the others
  float min = 0, max = 0;
  double mean = 0;
};
FloatSummary summarize(std::string_view payload);

/// As in "[64, 3, 7, 7]".
std::string describeShape(const std::vector<std::size_t>& shape);

/// What is wrong with an array of which `notFinite` elements are NaN or infinite; empty if none is.
std::string describeNotFinite(std::size_t notFinite, std::size_t elements);

/// A weight file, parsed without a device.
class WeightDocument {
 public:
  /// @throws Failure if the file does not hold a MessagePack map
  explicit WeightDocument(const std::string& path);

  /// In file order.
  const std::vector<WeightArray>& arrays() const { return arrays_; }
  /// The one that a network reads by that name, the first of equals; null if there is none.
  const WeightArray* find(std::string_view name) const;

 private:
  facezoo::FileBytes bytes_;
  msgpack::v1::object_handle document_;
  std::vector<WeightArray> arrays_;
  std::unordered_map<std::string_view, const WeightArray*> byName_;
};

/// Writes a weight file, array by array.
class WeightWriter {
 public:
  WeightWriter(std::ostream& out, std::size_t arrays);
  /// Its floats are what `append` is given until the next array starts.
  void startArray(const std::string& name, std::size_t elements);
  void append(std::string_view floats);

 private:
  msgpack::packer<std::ostream> packer_;
};

struct WeightFindings {
  std::size_t expected = 0;         ///< arrays that the network needs
  std::vector<std::string> faults;  ///< why the network would not load, or not work
  std::vector<std::string> unused;  ///< names of entries that no layer reads
};
WeightFindings checkWeights(const WeightDocument& document, const facezoo::NetworkTable& network,
                            const std::string& prefix);

/// Finds what a network's constructor would, but all of it and without a device.
/// @throws Failure that names the first faults of the file
void requireWeights(const std::string& path, const facezoo::NetworkTable& network,
                    const std::string& prefix);
