#include "client/networks.h"

#include "client/failure.h"
#include "network_list.h"

#include <algorithm>
#include <limits>

namespace facezoo {

namespace {

template <class Net>
std::unique_ptr<Network> make(const std::string& weightFile, int maxBatch,
                              const std::string& prefix) {
  return std::make_unique<Net>(weightFile.c_str(), maxBatch, prefix);
}

}  // namespace

const std::vector<KnownNetwork>& knownNetworks() {
  static const auto all = Networks::map([](auto entry) {
    return KnownNetwork{&entry.table, make<typename decltype(entry)::Class>};
  });
  static const std::vector<KnownNetwork> networks(all.begin(), all.end());
  return networks;
}

std::vector<std::string> networkNames() {
  std::vector<std::string> names;
  for (const KnownNetwork& known : knownNetworks()) names.emplace_back(known.table->name);
  return names;
}

int largestBatch(const NetworkTable& network) {
  return std::numeric_limits<int>::max() / network.perImageBytes;
}

const KnownNetwork& findNetwork(const std::string& name) {
  const auto found =
      std::find_if(knownNetworks().begin(), knownNetworks().end(),
                   [&](const KnownNetwork& known) { return name == known.table->name; });
  if (found == knownNetworks().end()) throw Failure("there is no network " + name);
  return *found;
}

}  // namespace facezoo
