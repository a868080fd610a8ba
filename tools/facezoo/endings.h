/// @file
/// How the process ends, and what becomes of its incomplete files then.
#pragma once

#include <string>

/// From here on no end that can be caught leaves an incomplete file or is silent: a signal, a fault
/// of the program's own, an exception that nothing catches and an `exit` that a library calls each
/// remove the files of `noteTemporary` and say so in one line; a signal then ends the process as it
/// does by default. Output that nobody takes is a failure like any other.
/// @return whether the parent process left SIGPIPE at its default, so that the tool ends silently
/// where nobody reads its output
bool handleEnds();

/// Returns `code`, for `main` to return, and notes that the exit which follows is intended.
int endWith(int code);
