/// @file
#pragma once

#include "client/networks.h"

#include <functional>
#include <string>

namespace facezoo {

/// Constructs a network, lends it to `use` and destroys it. The file is read once: what is checked
/// is the document that the network takes its weights from. The library prints nothing meanwhile.
/// @throws Failure that names what is wrong with the file; what `use` throws
void withCheckedNetwork(const KnownNetwork& known, const std::string& weightFile, int maxBatch,
                        const std::string& prefix, const std::function<void(Network&)>& use);

}  // namespace facezoo
