#include "networks.h"

#include "facezoo.h"

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

const KnownNetwork& findNetwork(const std::string& name) {
  return *std::find_if(knownNetworks().begin(), knownNetworks().end(),
                       [&](const KnownNetwork& known) { return name == known.table->name; });
}

void addNetworkArgument(CLI::App& command, std::string& name) {
  std::vector<std::string> names;
  for (const KnownNetwork& known : knownNetworks()) names.emplace_back(known.table->name);
  command.add_option("NET", name, "Network, by class name")
      ->required()
      ->check(CLI::IsMember(names));
}

void addPrefixOption(CLI::App& command, std::string& prefix) {
  command.add_option("--prefix", prefix, "Put in front of every weight name")->type_name("P");
}
