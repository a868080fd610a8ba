/// @file
/// Arguments that several commands take.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

void addNetworkArgument(CLI::App& command, std::string& name);
void addPrefixOption(CLI::App& command, std::string& prefix);
