/// @file
/// What a device must have for the library to choose it.
#pragma once

#include <cstddef>

namespace facezoo {

constexpr int requiredMajor = 5;  ///< compute capability
constexpr std::size_t requiredMiB = 2048;

}  // namespace facezoo
