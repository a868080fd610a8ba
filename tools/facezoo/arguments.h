/// @file
/// Arguments that several commands take.
#pragma once

#include "network_table.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

void addNetworkArgument(CLI::App& command, std::string& name);
/// Adds NET as a list, which may be empty.
void addNetworkArguments(CLI::App& command, std::vector<std::string>& names);
void addPrefixOption(CLI::App& command, std::string& prefix);

/// For `transform`: accepts decimal digits only. The parser by itself would wrap a negative number
/// around, clamp one that is too large and read 010 as eight.
CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most);
/// For `check`: accepts numbers above zero that a 32-bit float can hold.
CLI::Validator positiveNumber();

/// Adds --force, with which a command replaces files that exist.
CLI::Option* addForceOption(CLI::App& command, bool& force);

/// @throws CLI::ValidationError if a block of the pool cannot be large enough for such a batch
void requireBatch(const facezoo::NetworkTable& network, int batch);
