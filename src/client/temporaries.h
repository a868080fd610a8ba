/// @file
/// The names of the process's incomplete files.
#pragma once

#include <string>

namespace facezoo {

/// Notes a file that is to be removed if the process ends now. Setting the first character of the
/// returned name to 0 takes it back. @throws Failure
char* noteTemporary(const std::string& name);

/// Removes those files. Takes no memory and no lock, so that a handler of signals may call it.
void removeTemporaries() noexcept;

}  // namespace facezoo
