#include "client/weight_exchange.h"

#include "client/failure.h"
#include "client/strict_json.h"

#include <algorithm>
#include <functional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace facezoo {

namespace {

using Shape = std::vector<std::size_t>;

Shape withoutOnes(Shape shape) {
  shape.erase(std::remove(shape.begin(), shape.end(), std::size_t{1}), shape.end());
  return shape;
}

/// The shapes in which a tensor has the elements of the weight in the same order. A fully connected
/// layer sees a feature map as a row of values: channels, then rows, then columns.
std::vector<Shape> acceptedShapes(const LayerRow& layer, WeightRole role) {
  std::vector<Shape> shapes = {weightShape(layer, role)};
  if (role == WeightRole::filter && layer.edge > 1) {
    const std::size_t out = layer.out, in = layer.in, edge = layer.edge;
    shapes.push_back({out, in / (edge * edge), edge, edge});
  }
  return shapes;
}

/// What is wrong with the tensor as this weight; empty if nothing is.
std::string describeFault(const StoredTensor& tensor, std::size_t elements, const LayerRow& layer,
                          WeightRole role) {
  if (!holdsFloats(tensor)) return "expected F32, F16 or BF16, found " + tensor.type;
  if (!fits(tensor, layer, role)) {
    std::string shapes;
    for (const Shape& shape : acceptedShapes(layer, role))
      shapes += (shapes.empty() ? "" : " or ") + describeShape(shape);
    return "expected shape " + shapes + ", found " + describeShape(tensor.shape);
  }
  std::size_t notFinite = 0;
  readFloats(tensor, [&](std::string_view floats) { notFinite += summarize(floats).notFinite; });
  return describeNotFinite(notFinite, elements);
}

bool haveEqualFloats(const StoredTensor& written, std::string_view readBack) {
  bool equal = written.elements() * sizeof(float) == readBack.size();
  if (!equal) return false;
  readFloats(written, [&](std::string_view floats) {
    equal = equal && floats == readBack.substr(0, floats.size());
    readBack.remove_prefix(floats.size());
  });
  return equal;
}

/// Writes a file, which gets its name only after `requireSame` has read it back.
void save(OutputPlace place, const std::function<void(std::ostream&)>& write,
          const std::function<void(const std::string& path)>& requireSame) {
  const std::string name = place.name();
  NewFile file(std::move(place));
  write(file.stream());
  const std::string written = file.close();
  try {
    requireSame(written);
  } catch (const Failure& failure) {
    throw Failure(name + ": reading it back: " + failure.what());
  }
  file.keep();
}

}  // namespace

FloatSummary summarize(const StoredTensor& tensor) {
  FloatSummary all;
  double sum = 0;
  readFloats(tensor, [&](std::string_view floats) {
    const FloatSummary part = summarize(floats);
    const std::size_t finite = part.count - part.notFinite;
    const bool isFirst = all.count == all.notFinite;
    if (finite > 0) {
      all.min = isFirst ? part.min : std::min(all.min, part.min);
      all.max = isFirst ? part.max : std::max(all.max, part.max);
      sum += part.mean * static_cast<double>(finite);
    }
    all.count += part.count;
    all.notFinite += part.notFinite;
  });
  if (all.count > all.notFinite) all.mean = sum / static_cast<double>(all.count - all.notFinite);
  return all;
}

bool fits(const StoredTensor& tensor, const LayerRow& layer, WeightRole role) {
  const std::vector<Shape> accepted = acceptedShapes(layer, role);
  const Shape shape = withoutOnes(tensor.shape);
  return std::any_of(accepted.begin(), accepted.end(),
                     [&](const Shape& each) { return withoutOnes(each) == shape; });
}

std::vector<std::string> faultsOf(const TensorNames& names, const NetworkTable& network,
                                  const std::string& prefix) {
  std::unordered_set<std::string> weights;
  forEachWeight(network.layers, prefix,
                [&](const std::string& name, auto&&...) { weights.insert(name); });
  std::vector<std::string> faults;
  for (const auto& [weight, tensor] : names)
    if (weights.count(weight) == 0)
      faults.push_back("expected names of the network's weights, found " + weight);
  return faults;
}

TensorNames readTensorNames(const std::string& path, const NetworkTable& network,
                            const std::string& prefix) {
  const FileBytes bytes = readFile(path);
  nlohmann::json document;
  try {
    document = parseStrictJson({bytes.data.get(), bytes.size}, 1);
  } catch (const Failure& failure) {
    throw Failure(path + ": " + failure.what());
  }
  if (!document.is_object())
    throw Failure(path + ": expected a JSON object, found " + document.type_name());
  TensorNames names;
  std::vector<std::string> faults;
  for (const auto& [weight, tensor] : document.items()) {
    if (tensor.is_string() || tensor.is_null()) {
      names[weight] = tensor.is_null() ? std::nullopt : std::optional<std::string>(tensor);
    } else {
      faults.push_back(weight + ": expected the name of a tensor, found " + tensor.type_name());
    }
  }
  for (std::string& fault : faultsOf(names, network, prefix)) faults.push_back(std::move(fault));
  if (!faults.empty()) throw Failure(path + ": " + joinFaults(faults));
  return names;
}

TensorSelection selectTensors(const std::vector<StoredTensor>& tensors, const NetworkTable& network,
                              const std::string& prefix, const TensorNames& names) {
  std::unordered_map<std::string_view, const StoredTensor*> byName;
  for (const StoredTensor& tensor : tensors) byName.emplace(tensor.name, &tensor);

  TensorSelection selection;
  std::unordered_map<const StoredTensor*, std::string> users;
  forEachWeight(
      network.layers, prefix,
      [&](const std::string& weight, std::size_t elements, const LayerRow& layer, WeightRole role) {
        ++selection.findings.expected;
        const auto renamed = names.find(weight);
        const std::string& name =
            renamed == names.end() ? weight : renamed->second.value_or(weight);
        const auto found = byName.find(name);
        std::string fault;
        if (renamed != names.end() && !renamed->second) {
          fault = "expected the name of a tensor of shape " +
                  describeShape(weightShape(layer, role)) + ", found null";
        } else if (found == byName.end()) {
          fault = "expected shape " + describeShape(weightShape(layer, role)) + ", found none";
        } else if (const auto [user, isFirst] = users.emplace(found->second, weight); !isFirst) {
          fault = "expected a tensor of its own, found that of " + user->second;
        } else {
          fault = describeFault(*found->second, elements, layer, role);
        }
        if (fault.empty()) {
          const StoredTensor& tensor = *found->second;
          selection.arrays.push_back({weight, tensor.type, weightShape(layer, role), tensor.data});
        } else {
          selection.findings.faults.push_back(weight + (name == weight ? "" : " from " + name) +
                                              ": " + fault);
        }
      });
  for (const StoredTensor& tensor : tensors)
    if (users.count(&tensor) == 0) selection.findings.addUnused(tensor.name);
  return selection;
}

std::vector<StoredTensor> tensorsOf(const WeightDocument& document, const NetworkTable& network,
                                    const std::string& prefix) {
  const auto arrays = arraysOf(document, network, prefix);
  std::vector<StoredTensor> tensors;
  std::size_t i = 0;
  forEachWeight(network.layers, prefix,
                [&](const std::string& name, std::size_t, const LayerRow& layer, WeightRole role) {
                  if (const auto& array = arrays[i++])
                    tensors.push_back({name, "F32", weightShape(layer, role), array->payload});
                });
  return tensors;
}

std::vector<StoredTensor> tensorsOf(const WeightDocument& document) {
  std::vector<StoredTensor> tensors;
  std::vector<std::string> faults;
  std::unordered_set<std::string_view> names;
  for (std::size_t i = 0; i < document.size(); ++i) {
    const WeightArray array = document[i];
    const std::size_t bytes = array.payload.size();
    const std::string name(array.name);
    if (!array.named) {
      faults.push_back("expected names of arrays, found " + name);
    } else if (!names.insert(array.name).second) {
      continue;
    } else if (!array.loadable()) {
      faults.push_back(name + ": expected str, found " + array.type);
    } else if (bytes % sizeof(float) != 0) {
      faults.push_back(name + ": expected whole floats, found " + std::to_string(bytes) + " bytes");
    } else {
      tensors.push_back({name, "F32", {bytes / sizeof(float)}, array.payload});
    }
  }
  if (!faults.empty()) throw Failure(joinFaults(faults));
  return tensors;
}

void writeWeights(const std::vector<StoredTensor>& arrays, std::ostream& out) {
  WeightWriter writer(out, arrays.size());
  for (const StoredTensor& array : arrays) {
    writer.startArray(array.name, array.elements());
    readFloats(array, [&](std::string_view floats) { writer.append(floats); });
  }
}

void requireEqual(const std::vector<StoredTensor>& written,
                  const std::vector<StoredTensor>& readBack) {
  if (readBack.size() != written.size())
    throw Failure("expected " + std::to_string(written.size()) + " arrays read back, found " +
                  std::to_string(readBack.size()));
  for (std::size_t i = 0; i < written.size(); ++i) {
    if (readBack[i].name != written[i].name || readBack[i].shape != written[i].shape ||
        !haveEqualFloats(written[i], readBack[i].data))
      throw Failure(written[i].name + ": expected what was written, found other bytes");
  }
}

void saveWeights(const std::vector<StoredTensor>& arrays, OutputPlace place) {
  save(
      std::move(place), [&](std::ostream& out) { writeWeights(arrays, out); },
      [&](const std::string& path) {
        std::vector<StoredTensor> flat = arrays;  // as the file has no shapes
        for (StoredTensor& array : flat) array.shape = {array.elements()};
        const WeightDocument written(path);
        requireEqual(flat, tensorsOf(written));
      });
}

void saveSafetensors(const std::vector<StoredTensor>& arrays, const std::string& network,
                     OutputPlace place) {
  save(
      std::move(place), [&](std::ostream& out) { writeSafetensors(arrays, network, out); },
      [&](const std::string& path) { requireEqual(arrays, TensorFile(path).tensors()); });
}

}  // namespace facezoo
