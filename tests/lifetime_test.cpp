// Networks that come and go thousands of times, and one that outlives the library.
#include "calls.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>

namespace facezoo::test {
namespace {

long residentKiB() {
  long total = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

#ifdef FACEZOO_SANITIZED
constexpr int kSmallCycles = 200;  // of the workspace's life, too, which takes its heap long
#else
constexpr int kSmallCycles = 10000;
#endif

struct Lifetimes : ContractTest, testing::WithParamInterface<NetworkKind> {};

TEST_P(Lifetimes, LeaveMemoryAsItWas) {
  const NetworkTable& table = GetParam().table;
  const int cycles = numberFrom("FACEZOO_CYCLES", &table == &smallNetwork ? kSmallCycles : 2);
  host_device::poisonFreshMemory(false);  // takes too long
  const char* const file = seededFile(table);
  ForwardCall forward{table, 1};
  malloc_trim(0);  // what it took to make the file
  const long before = residentKiB();
  long most = before, settled = before;
  std::vector<float> expected;
  for (int i = 0; i < cycles; ++i) {
    if (i == 100) settled = residentKiB();
    const std::unique_ptr<Network> network(GetParam().construct(file, 1));
    const std::vector<float> results = forward.results(*network, 1);
    if (i == 0) expected = results;
    ASSERT_EQ(expected, results) << i;
    most = std::max(most, residentKiB());
  }
  const long after = residentKiB();
  std::cout << "measured " << table.name << ": " << cycles << " lives, at most " << most / 1024
            << " MiB of memory, " << after - before << " KiB more than before the first";
  if (cycles > 100) std::cout << ", " << after - settled << " KiB more than after the hundredth";
  std::cout << "\n";
#ifndef FACEZOO_SANITIZED  // which keep what is freed
  EXPECT_LT(after - before, 4096);
  EXPECT_TRUE(cycles <= 100 || after - settled < 1024);
#endif
}

INSTANTIATE_TEST_SUITE_P(Small, Lifetimes, testing::Values(smallKind),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(, Lifetimes, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

TEST(LibraryUnload, LeavesNothingAndIsOutlived) {
  for (const char* unloads : {" 0", " 3"}) {
    // One thread: where there are more, the leak check fails over memory of unloaded libraries.
    const std::string command =
        std::string("OMP_NUM_THREADS=1 " UNLOAD_COMMAND " ") + seededFile(dexpressionNet) + unloads;
    EXPECT_EQ(0, std::system(command.c_str())) << command;
  }
}

// Whoever brings the calls of the GPU libraries keeps them, and so does the library.
TEST(LibraryUnload, KeepsItsPlatformWhereAnotherHasTheNames) {
  for (const char* stub : {NAMES_STUB, VERSIONED_NAMES_STUB})
    for (const char* order : {" 0 before ", " 0 after "}) {
      const std::string command = std::string("OMP_NUM_THREADS=1 " UNLOAD_COMMAND " ") +
                                  seededFile(dexpressionNet) + order + stub;
      EXPECT_EQ(0, std::system(command.c_str())) << command;
    }
}

}  // namespace
}  // namespace facezoo::test
