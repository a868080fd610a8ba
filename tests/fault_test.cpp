// Every call to the platform fails once, and from then on; what the library promises must hold
// after each.
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "layers/softmax.h"
#include "seeded_network.h"

#include <malloc.h>
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <regex>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

namespace facezoo::test {
namespace {

using host_device::Live;

/// What one phase of a network's life threw: the library, empty if nothing, and its status.
using Thrown = std::pair<std::string, int>;

template <class Action>
Thrown attempt(const Action& action) {
  try {
    action();
  } catch (cudaError status) {
    return {"cuda", status};
  } catch (cudnnStatus_t status) {
    return {"cudnn", status};
  } catch (cublasStatus_t status) {
    return {"cublas", status};
  }
  return {};
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class FaultSweep : public DeviceTest, public testing::WithParamInterface<NetworkKind> {
 protected:
  static constexpr cudaError kCuda = cudaErrorLaunchFailure;
  static constexpr cudnnStatus_t kCudnn = CUDNN_STATUS_MAPPING_ERROR;
  static constexpr cublasStatus_t kCublas = CUBLAS_STATUS_ARCH_MISMATCH;

  void SetUp() override {
    DeviceTest::SetUp();
    omp_set_num_threads(1);                 // a fork has no others
    host_device::poisonFreshMemory(false);  // filling the workspace anew each time takes too long
    call_.reset(new ForwardCall{table_, 1});
    // The trace of a whole life, and where its phases end.
    host_device::setObserver(
        [&](const host_device::Call& call) { trace_.emplace_back(call.name); });
    construct();
    constructed_ = trace_.size();
    forward();
    forwarded_ = trace_.size();
    alive_ = host_device::live();
    destroy();
    host_device::setObserver({});
    expected_ = call_->take();
    // Otherwise a wrong result might go unnoticed.
    for (float value : expected_) ASSERT_TRUE(std::isfinite(value));
    ASSERT_GT(std::set<float>(expected_.begin(), expected_.end()).size() * 10,
              expected_.size() * 8);
  }

  void TearDown() override {
    call_.reset();
    EXPECT_EQ(0, NetworkProbe::count());
    DeviceTest::TearDown();
  }

  void construct() { net_ = GetParam().construct(seededFile(table_), 1); }
  void forward() { (*call_)(*net_, 1); }
  void destroy() { delete std::exchange(net_, nullptr); }

  /// The calls to fail: FACEZOO_FAULT_POINTS evenly spread over the trace, or "all".
  std::vector<std::size_t> points() const {
    const char* wanted = std::getenv("FACEZOO_FAULT_POINTS");
    if (!wanted) wanted = &table_ == &dexpressionNet ? "all" : &table_ == &faNet ? "8" : "24";
    std::size_t count = std::strtoul(wanted, nullptr, 10);
    if (count < 2 || count > trace_.size()) count = trace_.size();
    std::vector<std::size_t> all(count);
    for (std::size_t i = 0; i < count; ++i) all[i] = 1 + i * (trace_.size() - 1) / (count - 1);
    return all;
  }

  void sweep(bool fromThenOn) {
    const std::vector<std::size_t> all = points();
    // What failing releases leave for good goes with a process, before it is too much.
    const std::size_t atOnce = fromThenOn ? 1 + (std::size_t{2} << 30) / alive_.bytes : all.size();
    for (std::size_t first = 0; first < all.size() && !HasFailure(); first += atOnce) {
      std::cout.flush();
      const pid_t child = fork();
      if (child == 0) {
        mallopt(M_MMAP_MAX, 0);  // pages that were touched once are kept
        mallopt(M_TRIM_THRESHOLD, INT_MAX);
        construct();
        forward();
        for (std::size_t i = first; i < std::min(first + atOnce, all.size()); ++i) {
          SCOPED_TRACE("call " + std::to_string(all[i]) + ", " + trace_[all[i] - 1]);
          if (!HasFailure()) visit(all[i], fromThenOn);
        }
        std::cout.flush();
        _exit(HasFailure() ? 1 : 0);
      }
      int status = -1;
      EXPECT_EQ(child, waitpid(child, &status, 0));
      EXPECT_EQ(0, status);
    }
    std::cout << "visited " << all.size() << " of " << trace_.size() << " fault points of "
              << table_.name
              << (fromThenOn ? ", all later calls failing too" : ", one call failing");
    const auto upTo = [&](std::size_t k) {
      return std::upper_bound(all.begin(), all.end(), k) - all.begin();
    };
    std::size_t begin = 0;
    for (const auto& [phase, end] : {std::pair{"construction", constructed_},
                                     {"Forward", forwarded_},
                                     {"destruction", trace_.size()}}) {
      std::cout << ", " << phase << " " << upTo(end) - upTo(begin) << " of " << end - begin;
      begin = end;
    }
    std::cout << "\n";
  }

  /// Fails call `k` of a life. Before and after, a network is alive.
  void visit(std::size_t k, bool fromThenOn) {
    const bool afterForward = k > forwarded_;
    if (!afterForward) destroy();
    host_device::setFault(
        {afterForward ? k - forwarded_ : k, "", fromThenOn, kCuda, kCudnn, kCublas});
    testing::internal::CaptureStderr();
    std::vector<Thrown> thrown;
    const auto phase = [&](const auto& action) {
      const Thrown result = attempt(action);
      if (!result.first.empty()) thrown.push_back(result);
    };
    if (!afterForward) {
      phase([&] { construct(); });
      if (net_) phase([&] { forward(); });
      // A network whose pass failed is unharmed.
      if (net_ && !fromThenOn && !thrown.empty()) {
        EXPECT_EQ(expected_, call_->results(*net_, 1));
      }
    }
    if (net_) phase([&] { destroy(); });
    host_device::clearFault();
    const std::vector<std::string> lines = linesOf(testing::internal::GetCapturedStderr());
    const std::vector<std::string> raised = host_device::raisedFaults();

    // Releases are checked inside `Forward` and where the pool, the blas handle, the cuDNN handle
    // and the workspace go, which is last.
    const auto silent = [&](std::size_t call) {
      const std::string& name = trace_[call - 1];
      const bool releases = name == "cudaFree" || name.rfind("cudnnDestroy", 0) == 0;
      const bool checked = (call > constructed_ && call <= forwarded_) ||
                           call + table_.bufferCount + 3 > trace_.size();
      return name == "cudaMemcpy2D" || name == "cudaLaunchKernel" || name == "cudnnDestroy" ||
             (releases && !checked);
    };
    std::size_t reported = k;
    while (fromThenOn && reported < trace_.size() && silent(reported)) ++reported;
    if (silent(reported)) {
      EXPECT_TRUE(thrown.empty());
      EXPECT_TRUE(lines.empty());
    } else {
      ASSERT_FALSE(thrown.empty());
      ASSERT_FALSE(lines.empty());
      for (const auto& [library, status, text] :
           {std::tuple{"cudnn", int{kCudnn},
                       "CUDNN_STATUS_MAPPING_ERROR \\(cudnn error code: 7\\)"},
            {"cublas", int{kCublas}, "\\(cublas error code: 8\\)"},
            {"cuda", int{kCuda}, "unspecified launch failure \\(cuda error code: 719\\)"}}) {
        if (trace_[reported - 1].rfind(library, 0) != 0) continue;
        EXPECT_EQ(Thrown(library, status), thrown[0]);
        const std::string place = " at (src|include)/\\S+ line \\d+";
        EXPECT_TRUE(std::regex_match(lines[0], std::regex("\\[Error\\] " + (text + place))))
            << lines[0];
      }
    }
    if (fromThenOn) {
      // The end of an unwinding may add lines, but never an exception.
      EXPECT_GE(lines.size(), thrown.size());
      for (const std::string& line : lines) EXPECT_EQ(0U, line.rfind("[Error] ", 0)) << line;
    } else {
      EXPECT_EQ(std::vector<std::string>{trace_[k - 1]}, raised);
      EXPECT_LE(lines.size(), 1U);
    }

    // Lost for good is what an unchecked release failed to release: the checked ones, which print
    // where they stand, are tried again by the next network.
    const auto having = [](const std::vector<std::string>& texts, const std::string& part) {
      return static_cast<std::size_t>(std::count_if(
          texts.begin(), texts.end(),
          [&](const std::string& text) { return text.find(part) != std::string::npos; }));
    };
    const auto failedToAllocateAt = [&](const std::string& place) {
      return raised[0] == "cudaMalloc" ? having({lines[0]}, place) : 0;
    };
    Live lost{};
    lost.allocations = having(raised, "cudaFree") - having(lines, "include/layer.h") -
                       having(lines, "src/tensor.cpp") + failedToAllocateAt("src/tensor.cpp");
    lost.handles =
        static_cast<std::size_t>(std::count(raised.begin(), raised.end(), "cudnnDestroy"));
    lost.descriptors = having(raised, "cudnnDestroy") - lost.handles;
    // A handle whose workspace could not be had is replaced, not kept.
    lost.handles += failedToAllocateAt("src/layer.cpp");
    // A new life works as if nothing had been, and holds what it should.
    EXPECT_EQ(0, NetworkProbe::count());
    construct();
    EXPECT_EQ(expected_, call_->results(*net_, 1));
    EXPECT_EQ(1, NetworkProbe::count());
    const Live now = host_device::live();
    EXPECT_EQ(alive_.allocations + lost.allocations, now.allocations);
    EXPECT_EQ(alive_.handles + lost.handles, now.handles);
    EXPECT_EQ(alive_.descriptors + lost.descriptors, now.descriptors);
    alive_ = now;
  }

  const NetworkTable& table_ = GetParam().table;
  Network* net_ = nullptr;  // a smart pointer would not let the destructor's exceptions out
  std::unique_ptr<ForwardCall> call_;
  std::vector<float> expected_;
  std::vector<std::string> trace_;
  std::size_t constructed_ = 0, forwarded_ = 0;
  Live alive_{};  ///< while a network is
};

TEST_P(FaultSweep, OneFailingCall) { sweep(false); }
TEST_P(FaultSweep, AllCallsFromOneOn) { sweep(true); }
INSTANTIATE_TEST_SUITE_P(, FaultSweep, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

/// Where no stateless layer has its descriptors yet: fails the creation of each once.
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
  bool reported = true;
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
    reported = attempt(callAll).first == "cudnn" && reported;
    host_device::clearFault();
  }
  callAll();
  return reported && host_device::live().descriptors == before + std::size(calls) - 1;
}

TEST(FaultDeathTest, DescriptorsThatStayAreCreatedOnceThroughFailures) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";  // a fresh process
  EXPECT_EXIT(std::exit(firstCallsMeetEveryFailure() ? 0 : 1), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace facezoo::test
