/// @file
#pragma once

#include "sinks.h"

#include <memory>

/// Prints for each picture the nearest rows of the gallery. @throws Failure if that does not fit
std::unique_ptr<Sink> neighbours(const RunOptions& options, const facezoo::NetworkTable& table,
                                 ResultFiles& files);
