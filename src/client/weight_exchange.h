/// @file
/// Exchange of weights with files of other frameworks.
#pragma once

#include "client/safetensors.h"
#include "client/weight_document.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace facezoo {

/// Statistics of the values, widened piece by piece. @pre `holdsFloats`
FloatSummary summarize(const StoredTensor& tensor);

/// Whether the tensor has the elements of the weight in the same order.
bool fits(const StoredTensor& tensor, const LayerRow& layer, WeightRole role);

/// Maps the name of a weight to that of its tensor, where they differ; no value if it is yet to be
/// named.
using TensorNames = std::unordered_map<std::string, std::optional<std::string>>;

/// Reads such a map from a JSON object.
/// @throws Failure if it is not, or names a weight that the network does not have
TensorNames readTensorNames(const std::string& path, const NetworkTable& network,
                            const std::string& prefix);

/// What a network takes from a file of tensors, in order of creation.
struct TensorSelection {
  WeightFindings findings;
  std::vector<StoredTensor> arrays;  ///< without fault, with name and shape of the weight, in order
};
TensorSelection selectTensors(const std::vector<StoredTensor>& tensors, const NetworkTable& network,
                              const std::string& prefix, const TensorNames& names);

/// The arrays of the network that the document has, in order of creation.
std::vector<StoredTensor> tensorsOf(const WeightDocument& document, const NetworkTable& network,
                                    const std::string& prefix);

void writeWeights(const std::vector<StoredTensor>& arrays, std::ostream& out);

/// @throws Failure unless `readBack` is what `written` holds, bit by bit, in 32-bit floats
void requireEqual(const std::vector<StoredTensor>& written,
                  const std::vector<StoredTensor>& readBack);

}  // namespace facezoo
