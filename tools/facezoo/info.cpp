#include "client/info.h"
#include "client/cpu_platform.h"
#include "client/failure.h"
#include "commands.h"
#include "device_requirement.h"
#include "rows.h"
#include "standard_output.h"

#include <memory>
#include <string>

using namespace facezoo;

namespace {

using Json = nlohmann::ordered_json;

void printTable(const Json& rows, const std::vector<Column>& columns) {
  if (rows.empty()) return;
  print("\n");
  Rows table("table", columns);
  for (const Json& row : rows) table.print(row);
}

void printTables(const Json& all) {
  print("facezoo %s, platform %s", FACEZOO_VERSION_TEXT, FACEZOO_PLATFORM);
  if (const auto cpu = cpuPlatform())
    print(", instructions %s, threads %d", cpu->instructions, cpu->threads);
  print("\n");
  printTable(all["libraries"], {{"library", 24}, {"found", 8}, {"supported", 10}, {"verdict", 0}});
  printTable(all["devices"],
             {{"device", 6, 0}, {"name", 24}, {"capability", 10}, {"MiB", 8, 0}, {"verdict", 0}});
  print("\nrequired: compute capability %d.0, %zu MiB\n", requiredMajor, requiredMiB);
  printTable(
      all["networks"],
      {{"network", 24}, {"channels", 8, 0}, {"width", 5, 0}, {"height", 6, 0}, {"results", 0}});
  printTable(all["environment"], {{"variable", 31}, {"value", 10}, {"effect", 0}});
}

// Without a usable device everything else is shown all the same; the failure comes last.
void info(const std::string& format) {
  std::string noDevice;
  const Json all = collectInformation(&noDevice);
  if (format == "json") {
    Rows(format, {}).print(all);
  } else {
    printTables(all);
  }
  if (!noDevice.empty()) throw Failure(noDevice);
}

}  // namespace

void addInfo(CLI::App& tool) {
  CLI::App* command =
      tool.add_subcommand("info", "Show the build, the versions found, the devices, the networks");
  const auto format = std::make_shared<std::string>("table");
  command->add_option("--format", *format, "How to print it: tables, or one JSON object")
      ->check(CLI::IsMember({"table", "json"}))
      ->type_name("F")
      ->capture_default_str();
  std::string footer = "Environment variables that are set are shown, too:\n";
  for (const Variable& variable : environmentVariables())
    footer += std::string("  ") + variable.name + ": " + variable.effect + "\n";
  command->footer(footer +
                  "Example: facezoo info\nExit code 1 if the library could use no device.");
  command->callback([format] { info(*format); });
}
