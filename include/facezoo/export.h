/// @file
/// What of the shared library can be seen from outside.
#pragma once

/// In the shared library's interface.
#define FACEZOO_EXPORT __attribute__((visibility("default")))
/// A member, of a class in the interface, that is the library's own.
#define FACEZOO_NO_EXPORT __attribute__((visibility("hidden")))
