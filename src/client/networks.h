/// @file
/// All networks, by the names of their classes.
#pragma once

#include "facezoo/network.h"
#include "network_table.h"

#include <memory>
#include <string>
#include <vector>

namespace facezoo {

struct KnownNetwork {
  const NetworkTable* table;
  std::unique_ptr<Network> (*make)(const std::string& weightFile, int maxBatch,
                                   const std::string& prefix);
};

const std::vector<KnownNetwork>& knownNetworks();

std::vector<std::string> networkNames();

/// The largest `maxBatch`, whose images fill a block of the pool.
int largestBatch(const NetworkTable& network);

/// @throws Failure if there is none of that name
const KnownNetwork& findNetwork(const std::string& name);

}  // namespace facezoo
