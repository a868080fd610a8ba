/// @file
/// What the library says: to who listens, or on a standard stream.
#pragma once

#include <cstdio>

namespace facezoo {

class Listener;

/// Null if nobody listens.
Listener* listener();

/// Prints a line to `stream` in one call, unless somebody listens. `format` holds the line's end.
[[gnu::format(printf, 2, 3)]] void report(std::FILE* stream, const char* format, ...);

}  // namespace facezoo
