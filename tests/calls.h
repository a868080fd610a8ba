/// @file
/// Observes the calls that the library makes to the platform. Only a simulated device reports them:
/// on a card, the expectations of calls run their action and expect nothing.
#pragma once

#include "GPU.h"
#include "seeded_network.h"

namespace facezoo::test {

using Names = std::vector<std::string>;

inline Names operator+(Names left, const Names& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Names times(int n, const Names& part) {
  Names whole;
  while (n-- > 0) whole = whole + part;
  return whole;
}

#if FACEZOO_SIMULATED
/// The calls that are made while `action` runs.
template <class Action>
std::vector<host_device::Call> callsOf(const Action& action) {
  // Shared with the observer, which stays in place if `action` throws.
  const auto calls = std::make_shared<std::vector<host_device::Call>>();
  host_device::setObserver([calls](const host_device::Call& call) { calls->push_back(call); });
  action();
  host_device::setObserver({});
  return *calls;
}

template <class Action>
Names namesOf(const Action& action) {
  Names names;
  for (const host_device::Call& call : callsOf(action)) names.emplace_back(call.name);
  return names;
}
#endif

/// Runs `action`, which must make these calls.
template <class Action>
void expectCalls([[maybe_unused]] const Names& expected, const Action& action) {
#if FACEZOO_SIMULATED
  EXPECT_EQ(expected, namesOf(action));
#else
  action();
#endif
}

/// Runs `action`, which must throw a `Thrown`, and returns it.
template <class Thrown, class Action>
Thrown thrownBy(const Action& action) {
  try {
    action();
  } catch (Thrown value) {
    return value;
  }
  ADD_FAILURE() << "nothing was thrown";
  return static_cast<Thrown>(-1);
}

/// How many tensors of `floats` floats the pool has free blocks for.
inline int freeBlocks(int floats) {
  std::vector<Tensor> taken;
  try {
    while (true) taken.emplace_back(int4{1, 1, 1, floats});
  } catch (TensorError) {
    return static_cast<int>(taken.size());
  }
}

struct GpuProbe : GPU {
  static int& chosen() { return DeviceID; }
};

/// A test after which no network is alive.
struct ContractTest : DeviceTest {
  void TearDown() override {
    EXPECT_EQ(0, NetworkProbe::count());
    DeviceTest::TearDown();
  }
};

}  // namespace facezoo::test
