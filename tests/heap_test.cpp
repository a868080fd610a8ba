// The platform allocates no host memory in a `Forward` whose shape it has seen before.
// calls_test.cpp checks that no `Forward` allocates device memory.
#include "heap.h"
#include "seeded_network.h"

#include <dlfcn.h>

namespace facezoo::test {
namespace {

struct HeapTest : DeviceTest, testing::WithParamInterface<NetworkKind> {};

TEST_P(HeapTest, IsLeftAloneOnceAShapeIsKnown) {
  ForwardCall forward{GetParam().table, 2};
  const auto net = GetParam().make(2);
  for (const int batch : {1, 2}) {
    for (int call = 0; call < 2; ++call) forward(*net, batch);  // the second may keep filters
    heap::restart();
    forward(*net, batch);
    const heap::Usage usage = heap::usage();
    if (usage.fromOutside == 0) continue;
    Dl_info module{};
    dladdr(usage.firstCaller, &module);
    ADD_FAILURE() << usage.fromOutside << " allocations, batch " << batch << "; addr2line -e "
                  << module.dli_fname << " " << std::hex
                  << usage.firstCaller - static_cast<char*>(module.dli_fbase);
  }
}

INSTANTIATE_TEST_SUITE_P(, HeapTest, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace facezoo::test
