// Every call to the platform fails once, and from then on; what the library promises must hold
// after each.
#include "seeded_network.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <regex>
#include <sstream>
#include <utility>

namespace facezoo::test {
namespace {

using host_device::Fault;
using host_device::Live;

/// What one phase of a network's life threw; `source` is the library, empty if nothing.
struct Thrown {
  std::string source;
  int value = 0;
};

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

std::string libraryOf(const std::string& call) {
  for (const char* library : {"cudnn", "cublas", "cuda"}) {
    if (call.rfind(library, 0) == 0) return library;
  }
  return "";
}

/// A failure of this call passes silently. Releases are checked where the pool, the blas handle and
/// the workspace go, which is the end of a destruction.
bool unchecked(const std::string& call, bool insideForward, std::size_t callsToTheEnd) {
  if (call == "cudaMemcpy2D" || call == "cudaLaunchKernel" || call == "cudnnDestroy") return true;
  const bool releases = call == "cudaFree" || call.rfind("cudnnDestroy", 0) == 0;
  constexpr std::size_t kSharedReleases = 4 + 1 + 1 + 1;  // pool, blas, cuDNN handle, workspace
  return releases && !insideForward && callsToTheEnd > kSharedReleases;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class FaultSweep : public DeviceTest {
 protected:
  static constexpr cudaError kCuda = cudaErrorLaunchFailure;
  static constexpr cudnnStatus_t kCudnn = CUDNN_STATUS_MAPPING_ERROR;
  static constexpr cublasStatus_t kCublas = CUBLAS_STATUS_ARCH_MISMATCH;

  void SetUp() override {
    DeviceTest::SetUp();
    host_device::poisonFreshMemory(false);  // filling the workspace anew each time takes too long
    images_ = std::make_unique<DeviceArray<std::uint8_t>>(seededImages(dexpressionNet, 1));
    construct();
    expected_ = forward();
    destroy();
    idle_ = host_device::live();
    // The trace of a whole life, and where its phases end.
    host_device::setObserver(
        [&](const host_device::Call& call) { trace_.emplace_back(call.name); });
    construct();
    constructed_ = trace_.size();
    forward();
    forwarded_ = trace_.size();
    destroy();
    host_device::setObserver({});
  }

  void TearDown() override {
    images_.reset();
    // What failing releases left for good was counted as it happened.
    host_device::clearFault();
    releaseDevice();
    EXPECT_EQ(0, NetworkProbe::count());
  }

  void construct() { net_ = new DexpressionNet(seededFile(dexpressionNet).c_str(), 1, ""); }
  std::vector<float> forward() {
    std::vector<float> out(5, -1.0F);
    net_->Forward(images_->data(), 1, out.data(), nullptr);
    return out;
  }
  void destroy() { delete std::exchange(net_, nullptr); }

  /// Checks one phase's exception and its line against the failing call.
  static void expectReported(const std::string& call, const Thrown& thrown,
                             const std::string& line) {
    const std::string library = libraryOf(call);
    EXPECT_EQ(library, thrown.source);
    EXPECT_EQ(library == "cuda"    ? int{kCuda}
              : library == "cudnn" ? int{kCudnn}
                                   : int{kCublas},
              thrown.value);
    static const std::map<std::string, std::string> texts = {
        {"cuda", "unspecified launch failure \\(cuda error code: 719\\)"},
        {"cudnn", "CUDNN_STATUS_MAPPING_ERROR \\(cudnn error code: 7\\)"},
        {"cublas", "\\(cublas error code: 8\\)"}};
    EXPECT_TRUE(std::regex_match(
        line, std::regex("\\[Error\\] " + texts.at(library) + " at (src|include)/\\S+ line \\d+")))
        << line;
  }

  static Fault faultAt(std::size_t at, bool fromThenOn) {
    Fault fault;
    fault.at = at;
    fault.fromThenOn = fromThenOn;
    fault.cuda = kCuda;
    fault.cudnn = kCudnn;
    fault.cublas = kCublas;
    return fault;
  }

  /// After a faulty life: a new one works as if nothing had been, and leaves what it should.
  void expectRecovery(const Live& lost) {
    EXPECT_EQ(0, NetworkProbe::count());
    construct();
    EXPECT_EQ(expected_, forward());
    EXPECT_EQ(1, NetworkProbe::count());
    destroy();
    const Live now = host_device::live();
    EXPECT_EQ(idle_.allocations + lost.allocations, now.allocations);
    EXPECT_EQ(idle_.handles + lost.handles, now.handles);
    EXPECT_EQ(idle_.descriptors + lost.descriptors, now.descriptors);
    idle_ = now;
  }

  void sweep(bool fromThenOn) {
    for (std::size_t k = 1; k <= trace_.size() && !HasFailure(); ++k) {
      SCOPED_TRACE("call " + std::to_string(k) + ", " + trace_[k - 1]);
      visit(k, fromThenOn);
    }
    std::cout << "visited " << trace_.size() << " fault points, "
              << (fromThenOn ? "all later calls failing too" : "one call failing") << ": "
              << constructed_ << " in construction, " << forwarded_ - constructed_
              << " in Forward, " << trace_.size() - forwarded_ << " in destruction\n";
  }

 private:
  void visit(std::size_t k, bool fromThenOn) {
    host_device::setFault(faultAt(k, fromThenOn));
    testing::internal::CaptureStderr();
    std::vector<Thrown> thrown;
    const auto phase = [&](const auto& action) {
      const Thrown result = attempt(action);
      if (!result.source.empty()) thrown.push_back(result);
    };
    phase([&] { construct(); });
    if (net_) {
      phase([&] { forward(); });
      // A network whose pass failed is unharmed.
      if (!fromThenOn && !thrown.empty()) {
        EXPECT_EQ(expected_, forward());
      }
      phase([&] { destroy(); });
    }
    host_device::clearFault();
    const std::vector<std::string> lines = linesOf(testing::internal::GetCapturedStderr());
    const std::vector<std::string> raised = host_device::raisedFaults();

    const auto silent = [&](std::size_t call) {
      return unchecked(trace_[call - 1], call > constructed_ && call <= forwarded_,
                       trace_.size() - call + 1);
    };
    std::size_t reported = k;
    while (fromThenOn && reported < trace_.size() && silent(reported)) ++reported;
    if (silent(reported)) {
      EXPECT_TRUE(thrown.empty());
      EXPECT_TRUE(lines.empty());
    } else {
      ASSERT_FALSE(thrown.empty());
      ASSERT_FALSE(lines.empty());
      expectReported(trace_[reported - 1], thrown[0], lines[0]);
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
    const auto raisedOf = [&](const auto& matches) {
      return static_cast<std::size_t>(std::count_if(raised.begin(), raised.end(), matches));
    };
    const auto printedAt = [&](const std::string& place) {
      return static_cast<std::size_t>(std::count_if(
          lines.begin(), lines.end(),
          [&](const std::string& line) { return line.find(place) != std::string::npos; }));
    };
    const bool poolFailedToGrow =
        raised[0] == "cudaMalloc" && lines[0].find("src/tensor.cpp") != std::string::npos;
    Live lost{};
    lost.allocations = raisedOf([](const std::string& call) { return call == "cudaFree"; }) -
                       printedAt("include/layer.h") -
                       (printedAt("src/tensor.cpp") - (poolFailedToGrow ? 1 : 0));
    // A handle whose workspace could not be had is replaced, not kept.
    lost.handles =
        raisedOf([](const std::string& call) { return call == "cudnnDestroy"; }) + (k == 2 ? 1 : 0);
    lost.descriptors = raisedOf([](const std::string& call) {
      return call.rfind("cudnnDestroy", 0) == 0 && call != "cudnnDestroy";
    });
    expectRecovery(lost);
  }

  DexpressionNet* net_ = nullptr;  // a smart pointer would not let the destructor's exceptions out
  std::unique_ptr<DeviceArray<std::uint8_t>> images_;
  std::vector<float> expected_;
  std::vector<std::string> trace_;
  std::size_t constructed_ = 0, forwarded_ = 0;
  Live idle_{};
};

TEST_F(FaultSweep, OneFailingCall) { sweep(false); }
TEST_F(FaultSweep, AllCallsFromOneOn) { sweep(true); }

/// Where no stateless layer has its descriptors yet: fails the creation of each once.
bool firstForwardMeetsEveryFailure() {
  DexpressionNet net(seededFile(dexpressionNet).c_str(), 1, "");
  const DeviceArray<std::uint8_t> images(seededImages(dexpressionNet, 1));
  const std::size_t before = host_device::live().descriptors;
  std::vector<float> out(5);
  const auto forward = [&] { net.Forward(images.data(), 1, out.data(), nullptr); };
  bool reported = true;
  // Pooling makes three, two of them of tensors; normalization makes two, softmax one.
  for (const auto& [call, at] : {std::pair{"cudnnCreateTensorDescriptor", 1},
                                 {"cudnnCreateTensorDescriptor", 2},
                                 {"cudnnCreatePoolingDescriptor", 1},
                                 {"cudnnCreateTensorDescriptor", 1},
                                 {"cudnnCreateLRNDescriptor", 1},
                                 {"cudnnCreateTensorDescriptor", 1}}) {
    Fault fault;
    fault.name = call;
    fault.at = static_cast<std::size_t>(at);
    host_device::setFault(fault);
    reported = attempt(forward).source == "cudnn" && reported;
    host_device::clearFault();
  }
  forward();
  return reported && host_device::live().descriptors == before + 6;
}

TEST(FaultDeathTest, DescriptorsThatStayAreCreatedOnceThroughFailures) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";  // a fresh process
  EXPECT_EXIT(std::exit(firstForwardMeetsEveryFailure() ? 0 : 1), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace facezoo::test
