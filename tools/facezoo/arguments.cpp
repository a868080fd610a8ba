#include "arguments.h"

#include "client/networks.h"

#include <charconv>
#include <cstdlib>
#include <limits>
#include <system_error>

using namespace facezoo;

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

CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most) {
  const std::string first = std::to_string(least), last = std::to_string(most);
  // The largest number of its type is no limit that a user has to know.
  const bool isLimited = most < std::numeric_limits<int>::max();
  return {[=](std::string& text) -> std::string {
            std::uint64_t number = 0;
            const char* const end = text.data() + text.size();
            const auto [rest, error] = std::from_chars(text.data(), end, number);
            if (error != std::errc() || rest != end || number < least || number > most)
              return "expected a whole number from " + first + " to " + last + ", found " + text;
            text = std::to_string(number);
            return {};
          },
          isLimited ? "INT in [" + first + " - " + last + "]" : ""};
}

CLI::Validator positiveNumber() {
  return {[](std::string& text) -> std::string {
            char* end = nullptr;
            const float number = std::strtof(text.c_str(), &end);
            if (*end == '\0' && number > 0 && number <= std::numeric_limits<float>::max())
              return {};
            return "expected a positive number, found " + text;
          },
          ""};
}

CLI::Option* addForceOption(CLI::App& command, bool& force) {
  return command.add_flag("--force", force, "Replace files that exist, but none that is read");
}

void requireBatch(const NetworkTable& network, int batch) {
  const int most = largestBatch(network);
  if (batch <= most) return;
  throw CLI::ValidationError("--batch", std::string(network.name) + " takes at most " +
                                            std::to_string(most) + ", found " +
                                            std::to_string(batch));
}
