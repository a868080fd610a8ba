/// @file
/// The version of these headers, which is also read from here by whatever else states it.
#pragma once

#define FACEZOO_VERSION_MAJOR 0  ///< changes with what a host must change for
#define FACEZOO_VERSION_MINOR 1  ///< before 1.0, part of the shared library's name
#define FACEZOO_VERSION_PATCH 0  ///< hosts of the same minor version need not be compiled again
/// One number to compare with: 1.2.3 is 10203.
#define FACEZOO_VERSION \
  (FACEZOO_VERSION_MAJOR * 10000 + FACEZOO_VERSION_MINOR * 100 + FACEZOO_VERSION_PATCH)
