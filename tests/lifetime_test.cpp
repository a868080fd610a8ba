// Networks that are constructed and destroyed thousands of times, and one that outlives the
// library.
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
constexpr int kSmallCycles = 200;  // a sanitizer's heap takes long for the workspace of each
#else
constexpr int kSmallCycles = 10000;
#endif

struct Lifetimes : ContractTest, testing::WithParamInterface<NetworkKind> {};

TEST_P(Lifetimes, LeaveMemoryAsItWas) {
  const NetworkTable& table = GetParam().table;
  const int cycles = numberFrom("FACEZOO_CYCLES", &table == &smallNetwork ? kSmallCycles : 2);
  host_device::poisonFreshMemory(false);  // to fill each life's workspace would take too long
  const char* const file = seededFile(table);
  ForwardCall forward{table, 1};
  malloc_trim(0);  // gives back the memory that the weights took until they were in the file
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
#ifndef FACEZOO_SANITIZED  // sanitizers keep memory that was freed
  EXPECT_LT(after - before, 4096);
  EXPECT_TRUE(cycles <= 100 || after - settled < 1024);
#endif
}

INSTANTIATE_TEST_SUITE_P(Small, Lifetimes, testing::Values(smallKind),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(, Lifetimes, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

void expectToUnload(const std::string& arguments) {
  // With more threads than one, the leak check reports memory of unloaded libraries.
  const std::string command =
      std::string("OMP_NUM_THREADS=1 " UNLOAD_COMMAND " ") + seededFile(dexpressionNet) + arguments;
  EXPECT_EQ(0, std::system(command.c_str())) << command;
}

TEST(LibraryUnload, LeavesNothingAndIsOutlived) {
  for (const char* unloads : {" 0", " 3"}) expectToUnload(unloads);
}

// A host may have other functions under the names of the GPU libraries' calls: it goes on calling
// those, and the library its platform's.
TEST(LibraryUnload, KeepsItsPlatformWhereAnotherHasTheNames) {
  for (const std::string stub : {NAMES_STUB, VERSIONED_NAMES_STUB})
    for (const char* order : {" 0 before ", " 0 after "}) expectToUnload(order + stub);
}

}  // namespace
}  // namespace facezoo::test
