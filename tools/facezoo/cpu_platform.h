/// @file
#pragma once

#include <optional>

/// What the CPU platform computes with.
struct CpuPlatform {
  const char* instructions;
  int threads;
};

/// Nothing where a GPU computes.
std::optional<CpuPlatform> cpuPlatform();
