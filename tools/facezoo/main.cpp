#include "client/failure.h"
#include "commands.h"
#include "endings.h"
#include "messages.h"
#include "standard_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <iostream>

using namespace facezoo;

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

int fail(int code, const std::string& line) {
  if (std::cout) std::cout.flush();
  warn(line);
  return code;
}

std::string describeUsage(const CLI::App& tool, const CLI::ParseError& error) {
  std::string command = "facezoo";
  for (const CLI::App* app = &tool; !app->get_subcommands().empty();) {
    app = app->get_subcommands().front();
    command += " " + app->get_name();
  }
  // Where a word is misspelt, the parser says that another is missing.
  const std::vector<std::string> unknown = tool.remaining(true);
  const bool misspelt = !unknown.empty() && error.get_name() == "RequiredError";
  return (misspelt ? "unknown argument " + unknown.front() : error.what()) + " (see " + command +
         " --help)";
}

/// Reserves descriptors 0 to 2 where they are closed, so that no file that is opened later becomes
/// standard output. They are opened for reading: printing to them fails.
void reserveStandardDescriptors() {
  while (true) {
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (next > STDERR_FILENO) close(next);
    if (next < 0 || next > STDERR_FILENO) return;
  }
}

int runTool(int argc, char** argv) {
  CLI::App tool("Runs fixed networks for face analysis.", "facezoo");
  tool.set_version_flag("--version", FACEZOO_VERSION_TEXT);
  tool.require_subcommand(1);
  tool.footer("Example: facezoo run DexpressionNet -w weights.msgpack face.jpg");
  addBench(tool);
  addInfo(tool);
  addMatch(tool);
  addRun(tool);
  addWeights(tool);
  try {
    tool.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) return fail(kWrongUsage, describeUsage(tool, error));
    tool.exit(error);  // prints what was asked for
  }
  return 0;
}

/// Ends by SIGPIPE, as other filters do, unless the parent process ignored that signal: it then
/// expects a message.
int endWithoutReader(bool diesOfSigpipe, const ReaderGone& gone) {
  if (!diesOfSigpipe) return fail(kFailed, gone.what());
  std::signal(SIGPIPE, SIG_DFL);
  return std::raise(SIGPIPE);
}

}  // namespace

int main(int argc, char** argv) {
  reserveStandardDescriptors();
  const bool diesOfSigpipe = handleEnds();
  try {
    StandardOutput output;
    try {
      const int code = runTool(argc, argv);
      output.finish();
      return endWith(code);
    } catch (const ReaderGone&) {
      throw;
    } catch (...) {
      return endWith(fail(kFailed, describeException()));
    }
  } catch (const ReaderGone& gone) {
    return endWith(endWithoutReader(diesOfSigpipe, gone));
  } catch (...) {
    return endWith(fail(kFailed, describeException()));
  }
}
