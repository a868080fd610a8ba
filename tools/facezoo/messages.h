/// @file
/// What the tool says on a terminal.
#pragma once

#include <string>

/// `text` with its control characters, those of Unicode included, and what is not UTF-8 replaced,
/// so that a name from a file cannot break a line, turn its direction or steer the terminal.
std::string printable(const std::string& text);

/// Says `line` on standard error, in the tool's name. Without memory for the line, says that memory
/// is out.
void warn(const std::string& line) noexcept;
