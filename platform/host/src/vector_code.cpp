#include "vector_code.h"

#include "host_device.h"

#include <atomic>

namespace host_device {
namespace {

/// Null if this machine lacks the instructions.
const detail::VectorCode* codeFor(InstructionSet set) {
  switch (set) {
    case InstructionSet::baseline:
      return &detail::baselineCode;
    case InstructionSet::avx2:
      return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") ? &detail::avx2Code
                                                                             : nullptr;
    case InstructionSet::avx512:
      return __builtin_cpu_supports("avx512f") ? &detail::avx512Code : nullptr;
  }
  return nullptr;
}

const detail::VectorCode* bestCode() {
  for (const auto set : {InstructionSet::avx512, InstructionSet::avx2}) {
    if (const auto* code = codeFor(set)) return code;
  }
  return &detail::baselineCode;
}

std::atomic<const detail::VectorCode*>& currentCode() {
  static std::atomic<const detail::VectorCode*> code{bestCode()};
  return code;
}

}  // namespace

const detail::VectorCode& detail::vectorCode() { return *currentCode(); }

bool useInstructionSet(InstructionSet set) {
  const detail::VectorCode* const code = codeFor(set);
  if (code) currentCode() = code;
  return code != nullptr;
}

}  // namespace host_device
