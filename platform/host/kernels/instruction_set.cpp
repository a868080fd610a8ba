/// @file
/// Which instruction set is in use, for all that computes.
#include "host_device.h"
#include "kernels.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace host_device {

namespace baseline {
extern const Kernels kernels;
}
namespace avx2 {
extern const Kernels kernels;
}
namespace avx512 {
extern const Kernels kernels;
}

namespace {

struct Candidate {
  InstructionSet set;
  const char* name;
  const Kernels& kernels;
  bool (*isThere)();
};

/// The sets that there is code for, the best first.
const Candidate candidates[] = {
#ifdef __x86_64__
    {InstructionSet::avx512, "avx512", avx512::kernels,
     [] { return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw"); }},
    {InstructionSet::avx2, "avx2", avx2::kernels,
     [] { return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma"); }},
#endif
    {InstructionSet::baseline, "baseline", baseline::kernels, [] { return true; }},
};

const Candidate* best() {
  const Candidate* candidate = candidates;
  while (!candidate->isThere()) ++candidate;
  return candidate;
}

std::atomic<const Candidate*>& current() {
  static std::atomic<const Candidate*> candidate{best()};
  return candidate;
}

template <class Matches>
bool use(const Matches& matches) {
  for (const Candidate& candidate : candidates) {
    if (!matches(candidate) || !candidate.isThere()) continue;
    current() = &candidate;
    return true;
  }
  return false;
}

}  // namespace

const Kernels& kernels() { return current().load()->kernels; }

InstructionSet instructionSet() { return current().load()->set; }

bool useInstructionSet(InstructionSet set) {
  return use([&](const Candidate& candidate) { return candidate.set == set; });
}

bool useInstructionSetOfEnvironment() {
  const char* const name = std::getenv("FACEZOO_INSTRUCTION_SET");
  if (name == nullptr) return true;
  return use([&](const Candidate& candidate) { return std::strcmp(candidate.name, name) == 0; });
}

}  // namespace host_device
