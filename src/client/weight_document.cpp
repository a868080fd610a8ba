#include "client/weight_document.h"

#include "client/failure.h"
#include "client/file_kind.h"
#include "client/files.h"
#include "document.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <iterator>
#include <unordered_map>
#include <utility>

namespace facezoo {

namespace {

constexpr std::size_t kMostJoined = 5;
constexpr const char* kTypeNames[] = {"nil", "bool",  "int", "int", "float", "str",
                                      "bin", "array", "map", "ext", "float"};

/// The text that stands for a key that is no string.
std::string_view standIn(msgpack::type::object_type type) {
  static const auto texts = [] {
    std::array<std::string, std::size(kTypeNames)> made;
    for (std::size_t i = 0; i < made.size(); ++i)
      made[i] = std::string("(key of type ") + kTypeNames[i] + ")";
    return made;
  }();
  return texts[type];
}

std::string_view payloadOf(const msgpack::object& value) {
  if (value.type == msgpack::type::STR) return {value.via.str.ptr, value.via.str.size};
  if (value.type == msgpack::type::BIN) return {value.via.bin.ptr, value.via.bin.size};
  return {};
}

void requireMap(const msgpack::object& root, const std::string& path) {
  if (root.type != msgpack::type::MAP)
    throw Failure(path + ": expected a MessagePack map, found " + kTypeNames[root.type]);
}

}  // namespace

FloatSummary summarize(std::string_view payload) {
  FloatSummary summary;
  summary.count = payload.size() / sizeof(float);
  double sum = 0;
  std::size_t finite = 0;
  for (std::size_t i = 0; i < summary.count; ++i) {
    float value = 0;
    std::memcpy(&value, payload.data() + i * sizeof value, sizeof value);
    if (!std::isfinite(value)) continue;
    summary.min = finite == 0 ? value : std::min(summary.min, value);
    summary.max = finite == 0 ? value : std::max(summary.max, value);
    sum += value;
    ++finite;
  }
  summary.notFinite = summary.count - finite;
  if (finite > 0) summary.mean = sum / static_cast<double>(finite);
  return summary;
}

std::string describeShape(const std::vector<std::size_t>& shape) {
  std::string text;
  for (const std::size_t size : shape) text += (text.empty() ? "" : ", ") + std::to_string(size);
  return "[" + text + "]";
}

std::string describeNotFinite(std::size_t notFinite, std::size_t elements) {
  if (notFinite == 0) return {};
  return "expected finite values, found " + std::to_string(notFinite) + " of " +
         std::to_string(elements) + " NaN or infinite";
}

std::string joinFaults(const std::vector<std::string>& faults) {
  std::string line;
  for (std::size_t i = 0; i < std::min(kMostJoined, faults.size()); ++i)
    line += (i == 0 ? "" : "; ") + faults[i];
  if (faults.size() > kMostJoined)
    line += "; and " + std::to_string(faults.size() - kMostJoined) + " more";
  return line;
}

WeightDocument::WeightDocument(const std::string& path) {
  FileBytes bytes = readFile(path);
  const std::size_t size = bytes.size;
  if (size == 0) throw Failure(path + ": expected a MessagePack map, found an empty file");
  try {
    document_ = parseDocument(std::move(bytes));
  } catch (const msgpack::v1::insufficient_bytes&) {
    throw Failure(path + ": expected a complete MessagePack map, found its end missing after " +
                  std::to_string(size) + " bytes");
  } catch (const msgpack::v1::unpack_error&) {
    throw Failure(path +
                  ": expected a MessagePack map, found bytes that are not MessagePack or "
                  "nest deeper than 32 levels");
  }
  root_ = *document_;
  requireMap(root_, path);
}

WeightDocument::WeightDocument(const msgpack::v1::object& root, const std::string& path)
    : root_(root) {
  requireMap(root_, path);
}

WeightArray WeightDocument::operator[](std::size_t i) const {
  const auto& [key, value] = root_.via.map.ptr[i];
  const bool named = key.type == msgpack::type::STR;
  return {named ? payloadOf(key) : standIn(key.type), named, kTypeNames[value.type],
          payloadOf(value)};
}

std::vector<std::optional<WeightArray>> arraysOf(
    const WeightDocument& document, const NetworkTable& network, const std::string& prefix,
    const std::function<void(const WeightArray&)>& unused) {
  std::unordered_map<std::string, std::size_t> places;
  forEachWeight(network.layers, prefix,
                [&](const std::string& name, auto&&...) { places.emplace(name, places.size()); });
  std::vector<std::optional<WeightArray>> arrays(places.size());
  std::string name;
  for (std::size_t i = 0; i < document.size(); ++i) {
    const WeightArray array = document[i];
    const auto place = array.named ? places.find(name.assign(array.name)) : places.end();
    if (place == places.end() || arrays[place->second]) {
      unused(array);
    } else {
      arrays[place->second] = array;
    }
  }
  return arrays;
}

WeightWriter::WeightWriter(std::ostream& out, std::size_t arrays) : packer_(out) {
  packer_.pack_map(static_cast<std::uint32_t>(arrays));
}

void WeightWriter::startArray(const std::string& name, std::size_t elements) {
  packer_.pack(name);
  packer_.pack_str(static_cast<std::uint32_t>(elements * sizeof(float)));
}

void WeightWriter::append(std::string_view floats) {
  packer_.pack_str_body(floats.data(), static_cast<std::uint32_t>(floats.size()));
}

void WeightFindings::addUnused(std::string_view name) {
  constexpr std::size_t kMostNamed = 40;  // a page
  if (unusedCount++ < kMostNamed) unused.emplace_back(name);
}

std::vector<std::string> WeightFindings::lines() const {
  std::vector<std::string> all;
  for (const std::string& fault : faults) all.push_back("fault   " + fault);
  for (const std::string& name : unused) all.push_back("unused  " + name);
  if (const std::size_t more = unusedCount - unused.size(); more > 0)
    all.push_back("unused  ... and " + std::to_string(more) + " more");
  return all;
}

std::string WeightFindings::verdict(const NetworkTable& network) const {
  const std::string arrays = std::to_string(expected) + " arrays of " + network.name;
  if (faults.empty()) return "OK: " + arrays + ", " + std::to_string(unusedCount) + " unused";
  return std::to_string(faults.size()) + " of " + arrays + " are faulty or missing";
}

WeightFindings checkWeights(const WeightDocument& document, const NetworkTable& network,
                            const std::string& prefix) {
  WeightFindings findings;
  const auto arrays = arraysOf(document, network, prefix,
                               [&](const WeightArray& array) { findings.addUnused(array.name); });
  forEachWeight(
      network.layers, prefix,
      [&](const std::string& name, std::size_t elements, const LayerRow& layer, WeightRole role) {
        const std::optional<WeightArray>& array = arrays[findings.expected++];
        const std::size_t bytes = elements * sizeof(float);
        const std::string expected = "expected " + std::to_string(bytes) + " bytes of str, shape " +
                                     describeShape(weightShape(layer, role)) + ", found ";
        std::string fault;
        if (!array) {
          fault = expected + "none";
        } else if (!array->loadable()) {
          fault = expected + array->type;
        } else if (array->payload.size() != bytes) {
          fault = expected + std::to_string(array->payload.size()) + " bytes";
        } else {
          fault = describeNotFinite(summarize(array->payload).notFinite, elements);
        }
        if (!fault.empty()) findings.faults.push_back(name + ": " + fault);
      });
  return findings;
}

void requireWeights(const WeightDocument& document, const std::string& path,
                    const NetworkTable& network, const std::string& prefix) {
  const WeightFindings findings = checkWeights(document, network, prefix);
  if (findings.faults.empty()) return;
  const bool hasMore = findings.faults.size() > kMostJoined;
  throw Failure(path + ": " + joinFaults(findings.faults) +
                (hasMore ? ", which weights check lists" : "") + adviceOnPacking(document));
}

}  // namespace facezoo
