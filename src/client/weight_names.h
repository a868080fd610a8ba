/// @file
/// Which tensors of another framework's file a network's weights may be.
#pragma once

#include "client/safetensors.h"
#include "network_table.h"

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace facezoo {

/// A proposal: what two layers of equal shapes are for, a file does not say.
struct ProposedNames {
  /// Every weight of the network, in order of creation, and its tensor.
  std::vector<std::pair<std::string, std::optional<std::string>>> names;
  std::size_t byName = 0;   ///< the tensor, or its module, is called like the weight
  std::size_t byShape = 0;  ///< no other is like it
  std::size_t byOrder = 0;  ///< the n-th of equal modules for the n-th of equal layers
};

/// Takes tensors by names, then whole modules by what they hold, in the roles that their names tell
/// (weight, running_mean, ...), then what is left by shape. Equals come in the order of the file;
/// if that is the order of names, numbers in these count as such: features.2 before features.10.
ProposedNames proposeNames(const std::vector<StoredTensor>& tensors, const NetworkTable& network,
                           const std::string& prefix);

}  // namespace facezoo
