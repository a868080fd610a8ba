/// @file
/// The commands; each function adds one to the tool.
#pragma once

#include <CLI/CLI.hpp>

void addBench(CLI::App& tool);
void addInfo(CLI::App& tool);
void addMatch(CLI::App& tool);
void addRun(CLI::App& tool);
void addWeights(CLI::App& tool);
