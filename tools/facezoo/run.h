/// @file
/// What `run` and `match` share, the commands that give pictures to a network.
#pragma once

#include "sinks.h"

#include <CLI/CLI.hpp>

/// Adds the pictures, and the options of reading them and of running a network.
void addPictureOptions(CLI::App& command, RunOptions& options, bool weightsRequired);
/// Adds where results are printed, and how, in a group of the help.
void addOutputOptions(CLI::App& command, RunOptions& options, const std::string& group);

/// @throws Failure
void run(const RunOptions& options);
