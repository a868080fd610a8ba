/// @file
#pragma once

#include <optional>

/// What the CPU platform computes with.
struct CpuPlatform {
  const char* instructions;
  int threads;
};

/// No value in a build for GPUs.
std::optional<CpuPlatform> cpuPlatform();
