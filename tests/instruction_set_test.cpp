// That all computes with the instruction set in use; the tests of layers run with each.
#include "device_code.h"
#include "support.h"

#include <set>

namespace facezoo::test {
namespace {

using host_device::InstructionSet;

[[gnu::noinline]] const void* caller() { return __builtin_return_address(0); }

void kernel(const void** code) {
  device_code::overGrid(1, 1, 1, [=](int x, int) { code[x] = caller(); });
}

TEST(InstructionSets, ALaunchRunsCodeOfTheOneInUse) {
  const InstructionSet best = host_device::instructionSet();
  std::set<const void*> codes;
  std::size_t count = 0;
  for (const auto set : {InstructionSet::baseline, InstructionSet::avx2, InstructionSet::avx512}) {
    const InstructionSet before = host_device::instructionSet();
    const bool has = host_device::useInstructionSet(set);
    EXPECT_EQ(has ? set : before, host_device::instructionSet());
    const void* code = nullptr;
    device_code::launch(kernel, dim3(), dim3(), &code);
    codes.insert(code);
    count += has ? 1 : 0;
  }
  EXPECT_EQ(count, codes.size());
  EXPECT_EQ(best, host_device::instructionSet()) << "not the best at load";
  EXPECT_TRUE(host_device::useInstructionSet(best));
}

}  // namespace
}  // namespace facezoo::test
