/// @file
/// The networks that the tool knows, by class name.
#pragma once

#include "network.h"
#include "network_table.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

struct KnownNetwork {
  const facezoo::NetworkTable* table;
  /// Constructs the network, lends it to `use` and destroys it. A network's destructor may throw,
  /// which no smart pointer would survive.
  void (*with)(const std::string& weightFile, int maxBatch, const std::string& prefix,
               const std::function<void(Network&)>& use);
};

const std::vector<KnownNetwork>& knownNetworks();

/// `name` is one of those that `addNetworkArgument` lets through.
const KnownNetwork& findNetwork(const std::string& name);

void addNetworkArgument(CLI::App& command, std::string& name);
void addPrefixOption(CLI::App& command, std::string& prefix);
