/// @file
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

/// A command could not do its work. The text is the one line that the user sees: it names the file,
/// the weight or the argument, what was expected and what was found.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What the exception in flight means to the user. The library throws bare enumeration values.
std::string describeException();

/// `text` with its control characters replaced, so that a name from a file cannot break a line or
/// steer the terminal.
std::string printable(std::string text);

/// Says `line` on standard error, in the tool's name.
void warn(const std::string& line);

/// Keeps the library's own lines off standard error, where the tool says one line of its own. With
/// glibc stdio's streams are variables; what is written past stdio, as by `warn` or a sanitizer,
/// still shows.
class QuietLibrary {
 public:
  QuietLibrary();
  QuietLibrary(const QuietLibrary&) = delete;
  QuietLibrary& operator=(const QuietLibrary&) = delete;
  ~QuietLibrary();

 private:
  std::FILE* saved_;
  std::FILE* nowhere_;
};
