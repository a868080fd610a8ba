/// @file
/// Exchange of weights with files of other frameworks.
#pragma once

#include "client/files.h"
#include "client/safetensors.h"
#include "client/weight_document.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace facezoo {

/// Statistics of the values, widened piece by piece. @pre `holdsFloats`
FloatSummary summarize(const StoredTensor& tensor);

/// Whether the tensor has the elements of the weight in the same order.
bool fits(const StoredTensor& tensor, const LayerRow& layer, WeightRole role);

/// Maps the name of a weight to that of its tensor, where they differ; no value if it is yet to be
/// named.
using TensorNames = std::map<std::string, std::optional<std::string>>;

/// A fault for each name in the map that is none of the network's weights.
std::vector<std::string> faultsOf(const TensorNames& names, const NetworkTable& network,
                                  const std::string& prefix);

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

/// All arrays of a document, flat, in its order, each the first of its name.
/// @throws Failure that does not name the file, if the document holds anything else
std::vector<StoredTensor> tensorsOf(const WeightDocument& document);

void writeWeights(const std::vector<StoredTensor>& arrays, std::ostream& out);

/// @throws Failure unless `readBack` is what `written` holds, bit by bit, in 32-bit floats
void requireEqual(const std::vector<StoredTensor>& written,
                  const std::vector<StoredTensor>& readBack);

/// Writes a weight file of differently named arrays. It gets its name only when it has been read
/// back, with all arrays bit by bit. @throws Failure
void saveWeights(const std::vector<StoredTensor>& arrays, OutputPlace place);

/// The same for a safetensors file of the network's arrays, which are F32.
void saveSafetensors(const std::vector<StoredTensor>& arrays, const std::string& network,
                     OutputPlace place);

}  // namespace facezoo
