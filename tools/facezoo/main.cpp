#include "commands.h"
#include "failure.h"
#include "files.h"

#include <cstdio>

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

int fail(int code, const std::string& line) {
  std::fflush(stdout);
  std::fprintf(stderr, "facezoo: %s\n", printable(line).c_str());
  return code;
}

std::string describeUsage(const CLI::App& tool, const CLI::ParseError& error) {
  std::string command = "facezoo";
  for (const CLI::App* app = &tool; !app->get_subcommands().empty();) {
    app = app->get_subcommands().front();
    command += " " + app->get_name();
  }
  // A misspelt word is also a missing one, which the parser notices first.
  const std::vector<std::string> unknown = tool.remaining(true);
  const bool misspelt = !unknown.empty() && error.get_name() == "RequiredError";
  return (misspelt ? "unknown argument " + unknown.front() : error.what()) + " (see " + command +
         " --help)";
}

int runTool(int argc, char** argv) {
  CLI::App tool("Runs fixed networks for face analysis.", "facezoo");
  tool.set_version_flag("--version", FACEZOO_VERSION);
  tool.require_subcommand(1);
  tool.footer("Example: facezoo run DexpressionNet -w weights.msgpack face.jpg");
  addInfo(tool);
  addRun(tool);
  addWeights(tool);
  try {
    tool.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return tool.exit(error);
    return fail(kWrongUsage, describeUsage(tool, error));
  }
  if (std::fflush(stdout) != 0) throw Failure("standard output: cannot be written");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return runTool(argc, argv);
  } catch (...) {
    return fail(kFailed, describeException());
  }
}
