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

/// What the exception in flight means to the user. The library throws bare enumeration values.
/// Without memory for it, that it is lacking.
std::string describeException() noexcept;

}  // namespace facezoo
