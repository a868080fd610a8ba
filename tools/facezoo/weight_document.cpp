#include "weight_document.h"

#include "failure.h"
#include "files.h"
#include "weight_scan.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <unordered_set>

namespace {

const char* typeName(msgpack::type::object_type type) {
  static constexpr const char* names[] = {"nil", "bool",  "int", "int", "float", "str",
                                          "bin", "array", "map", "ext", "float"};
  return names[type];
}

std::string_view payloadOf(const msgpack::object& value) {
  if (value.type == msgpack::type::STR) return {value.via.str.ptr, value.via.str.size};
  if (value.type == msgpack::type::BIN) return {value.via.bin.ptr, value.via.bin.size};
  return {};
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

WeightDocument::WeightDocument(const std::string& path) : bytes_(readFile(path)) {
  if (bytes_.size == 0) throw Failure(path + ": expected a MessagePack map, found an empty file");
  try {
    facezoo::checkDocument(bytes_.data.get(), bytes_.size);
    std::size_t end = 0;
    const auto keepInFile = [](auto, std::size_t, void*) { return true; };
    msgpack::unpack(document_, bytes_.data.get(), bytes_.size, end, keepInFile);
  } catch (const msgpack::v1::insufficient_bytes&) {
    throw Failure(path + ": expected a complete MessagePack map, found its end missing after " +
                  std::to_string(bytes_.size) + " bytes");
  } catch (const msgpack::v1::unpack_error&) {
    throw Failure(path +
                  ": expected a MessagePack map, found bytes that are not MessagePack or "
                  "nest deeper than 32 levels");
  }
  const msgpack::object& root = document_.get();
  if (root.type != msgpack::type::MAP)
    throw Failure(path + ": expected a MessagePack map, found " + typeName(root.type));
  arrays_.reserve(root.via.map.size);
  for (std::uint32_t i = 0; i < root.via.map.size; ++i) {
    const msgpack::object_kv& entry = root.via.map.ptr[i];
    const bool named = entry.key.type == msgpack::type::STR;
    arrays_.push_back({named ? std::string(payloadOf(entry.key))
                             : std::string("(key of type ") + typeName(entry.key.type) + ")",
                       named, typeName(entry.val.type), payloadOf(entry.val)});
  }
  for (const WeightArray& array : arrays_)
    if (array.named) byName_.emplace(array.name, &array);
}

const WeightArray* WeightDocument::find(std::string_view name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : found->second;
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

WeightFindings checkWeights(const WeightDocument& document, const facezoo::NetworkTable& network,
                            const std::string& prefix) {
  WeightFindings findings;
  std::unordered_set<const WeightArray*> used;
  facezoo::forEachWeight(
      network.layers, prefix,
      [&](const std::string& name, std::size_t elements, const facezoo::LayerRow& layer,
          facezoo::WeightRole role) {
        ++findings.expected;
        const std::size_t bytes = elements * sizeof(float);
        const std::string expected = "expected " + std::to_string(bytes) + " bytes of str, shape " +
                                     describeShape(weightShape(layer, role)) + ", found ";
        const WeightArray* array = document.find(name);
        used.insert(array);
        std::string fault;
        if (array == nullptr) {
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
  for (const WeightArray& array : document.arrays())
    if (used.count(&array) == 0) findings.unused.push_back(array.name);
  return findings;
}

void requireWeights(const std::string& path, const facezoo::NetworkTable& network,
                    const std::string& prefix) {
  const WeightFindings findings = checkWeights(WeightDocument(path), network, prefix);
  if (findings.faults.empty()) return;
  constexpr std::size_t kMost = 5;
  const std::size_t named = std::min(kMost, findings.faults.size());
  std::string line = path;
  for (std::size_t i = 0; i < named; ++i) line += (i == 0 ? ": " : "; ") + findings.faults[i];
  if (const std::size_t more = findings.faults.size() - named; more > 0)
    line += "; and " + std::to_string(more) + " more, which weights check lists";
  throw Failure(line);
}
