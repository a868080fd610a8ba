/// @file
/// Arguments that several commands take.
#pragma once

#include "network_table.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

void addNetworkArgument(CLI::App& command, std::string& name);
/// Any number of them, also none.
void addNetworkArguments(CLI::App& command, std::vector<std::string>& names);
void addPrefixOption(CLI::App& command, std::string& prefix);

/// @throws CLI::ValidationError if no block of the pool could be large enough
void requireBatch(const facezoo::NetworkTable& network, int batch);
