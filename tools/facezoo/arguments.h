/// @file
/// Arguments that several commands take.
#pragma once

#include "network_table.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

void addNetworkArgument(CLI::App& command, std::string& name);
/// Any number of them, also none.
void addNetworkArguments(CLI::App& command, std::vector<std::string>& names);
void addPrefixOption(CLI::App& command, std::string& prefix);

/// Takes decimal digits, for `transform`: the parser alone would wrap a sign around, take the
/// largest number for a larger one, and 010 for eight.
CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most);
/// Takes what a 32-bit float can hold, unless it is zero or less, for `check`.
CLI::Validator positiveNumber();

/// Whether files may be replaced that the command did not write.
CLI::Option* addForceOption(CLI::App& command, bool& force);

/// @throws CLI::ValidationError if no block of the pool could be large enough
void requireBatch(const facezoo::NetworkTable& network, int batch);
