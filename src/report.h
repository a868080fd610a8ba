/// @file
/// The lines that the library prints: they go to the `Listener`, or to a standard stream.
#pragma once

#include <cstdio>

namespace facezoo {

class Listener;

/// Who listens now, or null.
Listener* listener();

/// Hands a line to the `Listener` or, if there is none, prints it to `stream` in one call. `format`
/// ends in a newline, which the `Listener` does not get.
[[gnu::format(printf, 2, 3)]] void report(std::FILE* stream, const char* format, ...);

}  // namespace facezoo
