/// @file
#pragma once

#include <stdexcept>
#include <string>

/// A command could not do its work. The text is the one line that the user sees: it names the file,
/// the weight or the argument, what was expected and what was found.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What the exception in flight means to the user. The library throws bare enumeration values.
/// Without memory for it, that it is lacking.
std::string describeException() noexcept;

/// `text` with its control characters, those of Unicode included, and what is not UTF-8 replaced,
/// so that a name from a file cannot break a line, turn its direction or steer the terminal.
std::string printable(const std::string& text);

/// Says `line` on standard error, in the tool's name. Without memory for it, that it is lacking.
void warn(const std::string& line) noexcept;
