// Host memory runs out: each allocation in a network's construction and first `Forward` fails,
// alone or with all calls to the platform after it; and each call fails with all allocations after
// it.
#include "heap.h"
#include "sweep.h"

#include <fstream>

namespace facezoo::test {
namespace {

#ifdef FACEZOO_SANITIZED
constexpr double kShare = 0.25;
constexpr std::size_t kStep = 10;
#else
constexpr double kShare = 0.5;
constexpr std::size_t kStep = 1;
#endif

class AllocationSweep : public Sweep {
 protected:
  void SetUp() override {
    Sweep::SetUp();
    // To give back the bytes behind a document, the library allocates.
    if (&table_ == &smallNetwork) std::ofstream(file_, std::ios::app) << "a tail";
    heap::restart();
    construct();
    inConstruction_ = heap::usage().allocations;
    forward();
    untilForward_ = heap::usage().allocations;
    destroy();
    EXPECT_EQ(untilForward_, heap::usage().allocations) << "the destruction allocates";
  }

  void sweep(const char* mode, void (*then)()) {
    const std::vector<std::size_t> visited = points(untilForward_, kShare);
    visitAll(visited, then != nullptr, [&](std::size_t k) {
      SCOPED_TRACE("allocation " + std::to_string(k));
      const std::size_t before = heap::usage().live;
      visit(k, then);
      if (then == nullptr) {
        EXPECT_EQ(before, heap::usage().live);
      }
    });
    report("allocation", mode, visited,
           {{"construction", inConstruction_}, {"Forward", untilForward_}});
  }

  void sweepCalls() {
    const std::vector<std::size_t> visited = points(trace_.size(), kShare / 2);
    visitAll(visited, false, [&](std::size_t k) {
      SCOPED_TRACE("call " + std::to_string(k) + ", " + trace_[k - 1]);
      visitCall(k);
    });
    report("fault", "all later allocations failing", visited, callPhases());
  }

  /// How a failing allocation is reported by `thrower`, a kind of `Thrown`.
  static Report outOfMemory(const std::string& thrower) {
    for (const Report& report :
         {Report{{"cuda", cudaErrorMemoryAllocation},
                 checkLine("out of memory \\(cuda error code: 2\\)")},
          {{"cudnn", CUDNN_STATUS_ALLOC_FAILED},
           checkLine("CUDNN_STATUS_ALLOC_FAILED \\(cudnn error code: 2\\)")},
          {{"cublas", CUBLAS_STATUS_ALLOC_FAILED}, checkLine("\\(cublas error code: 3\\)")},
          // A file that there is no memory to open is not found.
          {{"network", WEIGHT_FILE_NOT_FOUND}, "Weight file not found\\."}}) {
      if (report.thrown.first == thrower) return report;
    }
    return {{"bad_alloc", 0}, ""};
  }

  /// Fails allocation `k` of a life and calls `then`, if any, at that moment.
  void visit(std::size_t k, void (*then)()) {
    bool failed = false;
    Outcome outcome = live(
        false, then == nullptr, [&] { heap::failAt(k, heap::Failing::once, then); },
        [&] {
          failed = heap::endFailing();
          host_device::clearFault();
        });
    EXPECT_TRUE(failed);
    const Report report = outOfMemory(outcome.thrown.empty() ? "" : outcome.thrown[0].first);
    expectFirst(report, outcome);
    if (HasFatalFailure()) return;
    if (then == nullptr) {
      EXPECT_EQ(1U, outcome.thrown.size());
      EXPECT_EQ(report.line.empty() ? 0U : 1U, outcome.lines.size());
    }
    // The only call of the CUDA runtime that allocates is cudaMalloc.
    if (report.thrown.first == "cuda") outcome.raised.insert(outcome.raised.begin(), "cudaMalloc");
    expectNewLife(lostIn(outcome));
  }

  /// Fails call `k` of a life and every allocation after it.
  void visitCall(std::size_t k) {
    const bool afterForward = k > forwarded_;
    left_ = afterForward ? k - forwarded_ : k;
    const Outcome outcome = live(
        afterForward, false,
        [&] {
          host_device::setFault({left_, "", false, kCuda, kCudnn, kCublas});
          host_device::setObserver([this](const host_device::Call&) {
            if (--left_ > 0) return;
            host_device::setObserver({});
            heap::failAt(1, heap::Failing::fromThenOn);
          });
        },
        [] {
          heap::endFailing();
          host_device::clearFault();
        });
    EXPECT_EQ(Lines{trace_[k - 1]}, outcome.raised);
    if (afterForward) {
      EXPECT_TRUE(outcome.thrown.empty());
      if (!silent(k)) expectFirstLine(reportOf(trace_[k - 1]), outcome);
    } else if (!silent(k)) {
      expectFirst(reportOf(trace_[k - 1]), outcome);
    } else if (!outcome.thrown.empty()) {
      expectFirst(outOfMemory(outcome.thrown[0].first), outcome);
    }
    EXPECT_LE(outcome.lines.size(), 1U);
    if (!HasFatalFailure()) expectNewLife(lostIn(outcome));
  }

  std::size_t inConstruction_ = 0, untilForward_ = 0;
  std::size_t left_ = 0;
};

// One test for all modes, because making the weights takes longer than a mode.
TEST_P(AllocationSweep, EndsAsOneFailure) {
  sweep("one allocation failing", nullptr);
  sweep("all later calls failing too", [] {
    host_device::setFault({1, "", true, kCuda, kCudnn, kCublas});
  });
  sweepCalls();
}

INSTANTIATE_TEST_SUITE_P(, AllocationSweep, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Small, AllocationSweep, testing::Values(smallKind),
                         testing::PrintToStringParamName());

enum Ending { held, failed, notReached };

/// Constructs a network of `kind` while allocation `k` fails, in a process in which only a small
/// one is alive: there the pool's lists and the platform's scratch memory still have to grow, and
/// the descriptors that stay have to be created. The small network must go on working.
Ending growWith(const NetworkKind& kind, std::size_t k) {
  host_device::useThreads(1);
  ForwardCall call{kind.table, 1}, smallCall{smallNetwork, 1};
  SmallNetwork small(seededFile(smallNetwork), 1, "");
  const std::vector<float> expected = smallCall.results(small, 1);
  const char* const file = seededFile(kind.table);
  std::unique_ptr<Network> net;
  const auto construct = [&] { net.reset(kind.construct(file, 1)); };
  testing::internal::CaptureStderr();
  heap::failAt(k, heap::Failing::once);
  const Thrown thrown = attempt([&] {
    construct();
    call(*net, 1);
  });
  if (!heap::endFailing()) return notReached;
  EXPECT_NE("", thrown.first);
  EXPECT_EQ(net ? 2 : 1, NetworkProbe::count());
  const Thrown smallThrown = attempt([&] { EXPECT_EQ(expected, smallCall.results(small, 1)); });
  // Only if the pool's new blocks could not be allocated do networks that are alive lack theirs.
  const std::string mayThrow = thrown.first == "cuda" ? "tensor" : "";
  EXPECT_TRUE(smallThrown.first.empty() || smallThrown.first == mayThrow);
  construct();
  call(*net, 1);
  EXPECT_EQ(expected, smallCall.results(small, 1));
  return testing::Test::HasFailure() ? failed : held;
}

TEST(FirstAllocations, LeaveTheLivingAlone) {
  host_device::keepAfterFork(true);
  seededFile(smallNetwork);
  for (const auto& [kind, step] :
       {std::pair{networkKinds[0], kStep}, {networkKinds[2], 100 * kStep}}) {
    seededFile(kind.table);
    int ending = held;
    for (std::size_t k = 1; ending == held; k += step) {
      SCOPED_TRACE(kind.table.name + (", allocation " + std::to_string(k)));
      ending = exitCodeInChild([&, &kind = kind] { return growWith(kind, k); });
    }
    EXPECT_EQ(notReached, ending);
  }
}

}  // namespace
}  // namespace facezoo::test
