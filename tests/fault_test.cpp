// Each call to the platform in a network's life fails, alone or with all calls after it. After each
// the promises of docs/reliability.md must hold.
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "layers/softmax.h"
#include "sweep.h"

#include <utility>

namespace facezoo::test {
namespace {

class FaultSweep : public Sweep {
 protected:
  void sweep(bool fromThenOn) {
    const std::vector<std::size_t> visited = points(trace_.size(), 1);
    visitAll(visited, fromThenOn, [&](std::size_t k) {
      SCOPED_TRACE("call " + std::to_string(k) + ", " + trace_[k - 1]);
      visit(k, fromThenOn);
    });
    report("fault", fromThenOn ? "all later calls failing too" : "one call failing", visited,
           callPhases());
  }

  /// Fails call `k` of a life, which replaces the network that is alive; a new one follows.
  void visit(std::size_t k, bool fromThenOn) {
    const bool afterForward = k > forwarded_;
    const std::size_t at = afterForward ? k - forwarded_ : k;
    const Outcome outcome = live(
        afterForward, !fromThenOn,
        [&] {
          host_device::setFault({at, "", fromThenOn, kCuda, kCudnn, kCublas});
        },
        host_device::clearFault);
    std::size_t reported = k;
    while (fromThenOn && reported < trace_.size() && silent(reported)) ++reported;
    const Report report = reportOf(trace_[reported - 1]);
    if (silent(reported)) {
      EXPECT_TRUE(outcome.thrown.empty());
      EXPECT_TRUE(outcome.lines.empty());
    } else if (reported > forwarded_) {  // a destructor prints, and throws nothing
      EXPECT_TRUE(outcome.thrown.empty());
      expectFirstLine(report, outcome);
    } else {
      expectFirst(report, outcome);
    }
    if (fromThenOn) {
      // Destructors that run while the exception unwinds may print more lines, but throw nothing.
      EXPECT_GE(outcome.lines.size(), outcome.thrown.size());
      for (const std::string& line : outcome.lines) {
        EXPECT_EQ(0U, line.rfind("[Error] ", 0)) << line;
      }
    } else {
      EXPECT_EQ(Lines{trace_[k - 1]}, outcome.raised);
      EXPECT_LE(outcome.lines.size(), 1U);
    }
    if (HasFatalFailure()) return;
    expectTheRestReleased(outcome);
    expectNewLife(lostIn(outcome));
  }
};

TEST_P(FaultSweep, OneFailingCall) { sweep(false); }
TEST_P(FaultSweep, AllCallsFromOneOn) { sweep(true); }
INSTANTIATE_TEST_SUITE_P(, FaultSweep, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

/// Fails the creation of each descriptor that stateless layers share, in a process in which none of
/// them exists yet.
/// @return whether each failure was thrown and each descriptor was then created once
bool firstCallsMeetEveryFailure() {
  preparePool(sizeof(float), 3);
  Tensor x = upload<float>({1}, {1, 1, 1, 1});
  const std::size_t before = host_device::live().descriptors;
  const auto callAll = [&] {
    x = LocalResponseNormalization()(x, 5, 1e-4F, 0.75F, 1.0F);
    x = MaxPooling()(x, 1, 1, 0);
    x = AveragePooling()(x, 1, 1, 0);
    x = Relu()(x);
    x = Softmax()(x);
  };
  bool thrown = true;
  const std::string tensor = "cudnnCreateTensorDescriptor", pool = "cudnnCreatePoolingDescriptor";
  const std::pair<std::string, std::size_t> calls[] = {{tensor, 1},
                                                       {"cudnnCreateLRNDescriptor", 1},
                                                       {tensor, 1},
                                                       {tensor, 2},
                                                       {pool, 1},
                                                       {tensor, 1},
                                                       {tensor, 2},
                                                       {pool, 1},
                                                       {tensor, 1},
                                                       {"cudnnCreateActivationDescriptor", 1},
                                                       {"cudnnSetActivationDescriptor", 1},
                                                       {tensor, 1}};
  for (const auto& [call, at] : calls) {
    host_device::setFault({at, call});
    thrown = attempt(callAll).first == "cudnn" && thrown;
    host_device::clearFault();
  }
  callAll();
  return thrown && host_device::live().descriptors == before + std::size(calls) - 1;
}

TEST(FaultDeathTest, DescriptorsThatStayAreCreatedOnceThroughFailures) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";  // a fresh process
  EXPECT_EXIT(std::exit(firstCallsMeetEveryFailure() ? 0 : 1), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace facezoo::test
