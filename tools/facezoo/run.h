/// @file
/// What the commands share that take pictures through a network.
#pragma once

#include "sinks.h"

#include <CLI/CLI.hpp>

/// The pictures, and what reading them and running a network takes.
void addPictureOptions(CLI::App& command, RunOptions& options, bool weightsRequired);
CLI::Option* addOutputOption(CLI::App& command, RunOptions& options);

/// @throws Failure
void run(const RunOptions& options);
