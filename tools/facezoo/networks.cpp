#include "networks.h"

#include "facezoo.h"
#include "failure.h"

#include <algorithm>

namespace {

template <class N>
void withNetwork(const std::string& weightFile, int maxBatch, const std::string& prefix,
                 const std::function<void(Network&)>& use) {
  N network(weightFile.c_str(), maxBatch, prefix);
  use(network);
}

}  // namespace

const std::vector<KnownNetwork>& knownNetworks() {
  static const std::vector<KnownNetwork> networks = {
      {&facezoo::dexpressionNet, withNetwork<DexpressionNet>},
      {&facezoo::faNet, withNetwork<FANet>},
      {&facezoo::googLeNet, withNetwork<GoogLeNet>},
      {&facezoo::googLeNetBN, withNetwork<GoogLeNetBN>},
      {&facezoo::googLeNetFAA1ch, withNetwork<GoogLeNet_FAA1ch>},
      {&facezoo::googLeNetFAA3ch, withNetwork<GoogLeNet_FAA3ch>},
      {&facezoo::googLeNetFAA3ch12tasks, withNetwork<GoogLeNet_FAA3ch_12tasks>},
      {&facezoo::lcnn29, withNetwork<LCNN29>},
  };
  return networks;
}

std::vector<std::string> networkNames() {
  std::vector<std::string> names;
  for (const KnownNetwork& known : knownNetworks()) names.emplace_back(known.table->name);
  return names;
}

const KnownNetwork& findNetwork(const std::string& name) {
  const auto found =
      std::find_if(knownNetworks().begin(), knownNetworks().end(),
                   [&](const KnownNetwork& known) { return name == known.table->name; });
  if (found == knownNetworks().end()) throw Failure("there is no network " + name);
  return *found;
}
