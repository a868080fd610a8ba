/// @file
#pragma once

#include <stdexcept>
#include <string>

namespace facezoo {

/// A command could not do its work. The text is the one line that the user sees: it names the file,
/// the weight or the argument, what was expected and what was found.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Throws a `Failure` of `text` and the reason that `errno` holds.
[[noreturn]] void throwSystemFailure(const std::string& text);

/// What the exception in flight means to the user. The library throws bare enumeration values.
/// Without memory to say it, that memory is out.
std::string describeException() noexcept;

}  // namespace facezoo
