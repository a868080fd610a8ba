#include "client/cpu_platform.h"

#if FACEZOO_SIMULATED
#include <host_device.h>
#include <team.h>
#endif

namespace facezoo {

#if FACEZOO_SIMULATED

std::optional<CpuPlatform> cpuPlatform() {
  constexpr const char* names[] = {"baseline", "AVX2", "AVX-512"};
  return CpuPlatform{names[static_cast<int>(host_device::instructionSet())],
                     static_cast<int>(host_device::teamSize())};
}

#else

std::optional<CpuPlatform> cpuPlatform() { return std::nullopt; }

#endif

nlohmann::ordered_json describeBuild() {
  nlohmann::ordered_json build = {{"facezoo", FACEZOO_VERSION_TEXT},
                                  {"platform", FACEZOO_PLATFORM}};
  if (const auto cpu = cpuPlatform()) {
    build["instructions"] = cpu->instructions;
    build["threads"] = cpu->threads;
  }
  return build;
}

}  // namespace facezoo
