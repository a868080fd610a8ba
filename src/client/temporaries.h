/// @file
/// The incomplete files of the process, by their names.
#pragma once

#include <string>

namespace facezoo {

/// Keeps the name of a file to be removed at an end, until the first character of what is returned
/// is set to 0. @throws Failure
char* noteTemporary(const std::string& name);

/// Removes those files. Takes no memory and no lock, so that a handler of signals may call it.
void removeTemporaries() noexcept;

}  // namespace facezoo
