#include "arguments.h"

#include "networks.h"

#include <limits>

void addNetworkArgument(CLI::App& command, std::string& name) {
  command.add_option("NET", name, "Name of the network")
      ->required()
      ->check(CLI::IsMember(networkNames()));
}

void addNetworkArguments(CLI::App& command, std::vector<std::string>& names) {
  command.add_option("NET", names, "Names of networks; all eight if none is given")
      ->check(CLI::IsMember(networkNames()));
}

void addPrefixOption(CLI::App& command, std::string& prefix) {
  command.add_option("--prefix", prefix, "Text that every weight's name in the file begins with")
      ->type_name("P");
}

void requireBatch(const facezoo::NetworkTable& network, int batch) {
  const int most = std::numeric_limits<int>::max() / network.perImageBytes;
  if (batch <= most) return;
  throw CLI::ValidationError("--batch", std::string(network.name) + " takes at most " +
                                            std::to_string(most) + ", found " +
                                            std::to_string(batch));
}
