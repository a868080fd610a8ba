/// @file
/// Which names the shared library exports.
#pragma once

/// Part of the shared library's interface.
#define FACEZOO_EXPORT __attribute__((visibility("default")))
/// A member that only the library uses, in a class that is part of the interface.
#define FACEZOO_NO_EXPORT __attribute__((visibility("hidden")))
