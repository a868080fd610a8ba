/// @file
/// Proposes which tensors of another framework's file are a network's weights.
#pragma once

#include "client/safetensors.h"
#include "network_table.h"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace facezoo {

/// A proposal, as a file does not say which of two layers of equal shapes is which.
struct ProposedNames {
  /// Every weight of the network, in order of creation, and its tensor.
  std::vector<std::pair<std::string, std::optional<std::string>>> names;
  std::size_t byName = 0;   ///< the tensor, or its module, is called like the weight
  std::size_t byShape = 0;  ///< no other tensor has its shape
  std::size_t byOrder = 0;  ///< the n-th of equal modules for the n-th of equal layers
};

/// Matches tensors by name first, then whole modules by the shapes and roles of their tensors, as
/// their names tell them (weight, running_mean, ...), then what is left by shape. Equal ones are
/// matched in the order of the file; if that is sorted by name, in the order of the numbers in the
/// names: features.2 before features.10.
ProposedNames proposeNames(const std::vector<StoredTensor>& tensors, const NetworkTable& network,
                           const std::string& prefix);

}  // namespace facezoo
