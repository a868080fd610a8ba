#include "cpu_platform.h"

#if FACEZOO_SIMULATED

#include <host_device.h>
#include <team.h>

// The platform takes the best set that the machine has; to choose that again changes nothing.
std::optional<CpuPlatform> cpuPlatform() {
  using host_device::InstructionSet;
  const char* const instructions =
      host_device::useInstructionSet(InstructionSet::avx512) ? "AVX-512"
      : host_device::useInstructionSet(InstructionSet::avx2) ? "AVX2"
                                                             : "baseline";
  return CpuPlatform{instructions, host_device::teamSize()};
}

#else

std::optional<CpuPlatform> cpuPlatform() { return std::nullopt; }

#endif
