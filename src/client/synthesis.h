/// @file
#pragma once

#include "network_table.h"

#include <cstdint>
#include <ostream>
#include <string>

namespace facezoo {

/// Writes a weight file of seeded random values. They are scaled so that activations neither vanish
/// nor overflow from layer to layer and probabilities stay away from 0 and 1. The same seed gives
/// the same bytes on every machine.
void writeRandomWeights(const NetworkTable& network, const std::string& prefix, std::uint64_t seed,
                        std::ostream& out);

}  // namespace facezoo
