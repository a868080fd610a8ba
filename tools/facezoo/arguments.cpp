#include "arguments.h"

#include "networks.h"

#include <vector>

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
