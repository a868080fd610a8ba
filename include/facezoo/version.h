/// @file
/// The version of these headers. The build reads it here.
#pragma once

#define FACEZOO_VERSION_MAJOR 0  ///< raised when hosts must change their code
#define FACEZOO_VERSION_MINOR 1  ///< until 1.0 part of the shared library's name
#define FACEZOO_VERSION_PATCH 0  ///< raised when hosts run on without being compiled again
/// One number to compare with: 1.2.3 is 10203.
#define FACEZOO_VERSION \
  (FACEZOO_VERSION_MAJOR * 10000 + FACEZOO_VERSION_MINOR * 100 + FACEZOO_VERSION_PATCH)
