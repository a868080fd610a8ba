/// @file
#pragma once

#include <nlohmann/json.hpp>

#include <optional>

namespace facezoo {

/// What the CPU platform computes with.
struct CpuPlatform {
  const char* instructions;
  int threads;
};

/// No value in a build for GPUs.
std::optional<CpuPlatform> cpuPlatform();

/// The version and the platform, with what the CPU platform computes with.
nlohmann::ordered_json describeBuild();

}  // namespace facezoo
