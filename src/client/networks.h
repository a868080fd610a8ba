/// @file
/// All networks, by the names of their classes.
#pragma once

#include "facezoo/network.h"
#include "network_table.h"

#include <functional>
#include <string>
#include <vector>

namespace facezoo {

struct KnownNetwork {
  const NetworkTable* table;
  /// Constructs the network, lends it to `use` and destroys it.
  void (*with)(const std::string& weightFile, int maxBatch, const std::string& prefix,
               const std::function<void(Network&)>& use);
};

const std::vector<KnownNetwork>& knownNetworks();

std::vector<std::string> networkNames();

/// @throws Failure if there is none of that name
const KnownNetwork& findNetwork(const std::string& name);

}  // namespace facezoo
