/// @file
#pragma once

#include "client/networks.h"

#include <memory>
#include <string>

namespace facezoo {

/// Constructs a network. The file is read once: what is checked is the document that the network
/// takes its weights from. The library prints nothing meanwhile.
/// @param line takes what it would print, unless it is null
/// @throws Failure that names what is wrong with the file; what the network's constructor throws
std::unique_ptr<Network> makeCheckedNetwork(const KnownNetwork& known,
                                            const std::string& weightFile, int maxBatch,
                                            const std::string& prefix, std::string* line = nullptr);

}  // namespace facezoo
