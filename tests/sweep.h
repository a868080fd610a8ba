/// @file
/// Common to the tests that fail every call and every allocation in a network's life, one by one.
/// A life is the construction of a network, one `Forward` and its destruction.
#pragma once

#include "seeded_network.h"

#include <malloc.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <iostream>
#include <new>
#include <regex>
#include <set>
#include <sstream>
#include <utility>

namespace facezoo::test {

/// What one phase of a network's life threw: the kind of exception, empty if none, and its value.
using Thrown = std::pair<std::string, int>;

/// Runs `action` and returns what it threw; allocates nothing, as the heap may be exhausted.
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
  } catch (NetworkError error) {
    return {"network", error};
  } catch (TensorError error) {
    return {"tensor", error};
  } catch (const std::bad_alloc&) {
    return {"bad_alloc", 0};
  }
  return {};
}

class Sweep : public DeviceTest, public testing::WithParamInterface<NetworkKind> {
 protected:
  using Lines = std::vector<std::string>;

  /// What was seen of a life in which something failed.
  struct Outcome {
    std::vector<Thrown> thrown;
    Lines lines;             ///< what was printed
    Lines raised;            ///< names of the calls that failed
    host_device::Live left;  ///< what the device held after the destruction
  };

  static constexpr cudaError kCuda = cudaErrorLaunchFailure;
  static constexpr cudnnStatus_t kCudnn = CUDNN_STATUS_MAPPING_ERROR;
  static constexpr cublasStatus_t kCublas = CUBLAS_STATUS_ARCH_MISMATCH;

  void SetUp() override {
    DeviceTest::SetUp();
    host_device::useThreads(1);  // starting others, in each forked process, would allocate
    host_device::keepAfterFork(true);
    host_device::poisonFreshMemory(false);  // to fill each life's workspace would take too long
    file_ = seededFile(table_);
    call_.reset(new ForwardCall{table_, 1});
    // Record the calls of one life without failures, and where its phases end.
    host_device::setObserver(
        [&](const host_device::Call& call) { trace_.emplace_back(call.name); });
    construct();
    constructed_ = trace_.size();
    forward();
    forwarded_ = trace_.size();
    alive_ = host_device::live();
    destroy();
    host_device::setObserver({});
    idle_ = host_device::live();
    expected_ = call_->take();
    // Results that are all alike would hide a wrong one.
    for (float value : expected_) ASSERT_TRUE(std::isfinite(value));
    ASSERT_GT(std::set<float>(expected_.begin(), expected_.end()).size() * 10,
              expected_.size() * 8);
  }

  void TearDown() override {
    call_.reset();
    EXPECT_EQ(0, NetworkProbe::count());
    DeviceTest::TearDown();
  }

  void construct() { net_.reset(GetParam().construct(file_, 1)); }
  void forward() { (*call_)(*net_, 1); }
  void destroy() { net_.reset(); }

  /// Which of the points 1 to `count` to visit, evenly spread: all of them if the environment
  /// variable FACEZOO_FAULT_POINTS is "all", else `share` of the number in it. Without the
  /// variable, all points of the two smallest networks and `share` of 24 of the others. FANet,
  /// whose weights take longest to read, gets a third of its share.
  std::vector<std::size_t> points(std::size_t count, double share) const {
    const char* const set = std::getenv("FACEZOO_FAULT_POINTS");
    const bool isSmall = &table_ == &dexpressionNet || &table_ == &smallNetwork;
    const std::size_t number = set ? std::strtoul(set, nullptr, 10) : isSmall ? 0 : 24;
    if (&table_ == &faNet) share /= 3;
    const std::size_t wanted =
        number == 0 ? count : std::clamp<std::size_t>(std::lround(share * number), 2, count);
    std::vector<std::size_t> spread(wanted);
    for (std::size_t i = 0; i < wanted; ++i) spread[i] = 1 + i * (count - 1) / (wanted - 1);
    return spread;
  }

  /// Calls visit(k) for each of `points`, in child processes in which a network is alive. If
  /// releases fail, their memory leaks until the child ends: each child then visits only so many
  /// points as leak 2 GiB.
  template <class Visit>
  void visitAll(const std::vector<std::size_t>& points, bool releasesFail, const Visit& visit) {
    const std::size_t atOnce =
        releasesFail ? 1 + (std::size_t{2} << 30) / alive_.bytes : points.size();
    for (std::size_t first = 0; first < points.size() && !HasFailure(); first += atOnce) {
      EXPECT_EQ(0, exitCodeInChild([&] {
                  mallopt(M_MMAP_MAX,
                          0);  // the heap keeps its pages, as touching new ones takes long
                  mallopt(M_TRIM_THRESHOLD, INT_MAX);
                  construct();
                  forward();
                  for (std::size_t i = first; i < std::min(first + atOnce, points.size()); ++i) {
                    if (!HasFailure()) visit(points[i]);
                  }
                  return HasFailure() ? 1 : 0;
                }));
    }
  }

  /// Phases of a life and the last point of each.
  using Phases = std::vector<std::pair<const char*, std::size_t>>;

  void report(const char* what, const char* mode, const std::vector<std::size_t>& points,
              const Phases& phases) const {
    std::cout << "visited " << points.size() << " of " << phases.back().second << " " << what
              << " points of " << table_.name << ", " << mode;
    const auto upTo = [&](std::size_t k) {
      return std::upper_bound(points.begin(), points.end(), k) - points.begin();
    };
    std::size_t begin = 0;
    for (const auto& [phase, end] : phases) {
      std::cout << ", " << phase << " " << upTo(end) - upTo(begin) << " of " << end - begin;
      begin = end;
    }
    std::cout << "\n";
  }
  Phases callPhases() const {
    return {
        {"construction", constructed_}, {"Forward", forwarded_}, {"destruction", trace_.size()}};
  }

  /// Lives a life, or, with `onlyTheEnd`, destroys the network that is alive. `begin` is called
  /// before, to let something fail, and `end` afterwards, to end that. If only one call or
  /// allocation fails (`once`), a network whose `Forward` failed must work in the next.
  template <class Begin, class End>
  Outcome live(bool onlyTheEnd, bool once, const Begin& begin, const End& end) {
    Outcome outcome;
    outcome.thrown.reserve(2);  // the heap may be what fails
    const auto phase = [&](const auto& action) {
      Thrown thrown = attempt(action);
      if (!thrown.first.empty()) outcome.thrown.push_back(std::move(thrown));
    };
    if (!onlyTheEnd) destroy();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    begin();
    if (!onlyTheEnd) {
      phase([&] { construct(); });
      if (net_) phase([&] { forward(); });
      if (net_ && once && !outcome.thrown.empty()) {
        EXPECT_EQ(expected_, call_->results(*net_, 1));
      }
    }
    destroy();
    end();
    outcome.left = host_device::live();
    std::istringstream printed(testing::internal::GetCapturedStderr() +
                               testing::internal::GetCapturedStdout());
    for (std::string line; std::getline(printed, line);) outcome.lines.push_back(line);
    outcome.raised = host_device::raisedFaults();
    return outcome;
  }

  /// Whether the failure of call k of a life is neither thrown nor printed. Launches, the copies of
  /// `Concat` and releases are not checked, but for releases inside `Forward`, and for the last of
  /// a life: those of the pool, the cuBLAS handle and the workspace print a line.
  bool silent(std::size_t k) const {
    const std::string& name = trace_[k - 1];
    const bool releases = name == "cudaFree" || name.rfind("cudnnDestroy", 0) == 0;
    const bool checked =
        (k > constructed_ && k <= forwarded_) || k + table_.bufferCount + 3 > trace_.size();
    return name == "cudaMemcpy2D" || name == "cudaLaunchKernel" || name == "cudnnDestroy" ||
           (releases && !checked);
  }

  /// What a failure throws, and a regular expression of what it prints, empty if that is nothing.
  struct Report {
    Thrown thrown;
    std::string line;
  };
  static std::string checkLine(const std::string& text) {
    return "\\[Error\\] " + text + " at (src|include|tests)/\\S+ line \\d+";
  }
  /// What is expected where a call of that name fails.
  static Report reportOf(const std::string& call) {
    if (call.rfind("cudnn", 0) == 0) {
      return {{"cudnn", kCudnn}, checkLine("CUDNN_STATUS_MAPPING_ERROR \\(cudnn error code: 7\\)")};
    }
    if (call.rfind("cublas", 0) == 0) {
      return {{"cublas", kCublas}, checkLine("\\(cublas error code: 8\\)")};
    }
    return {{"cuda", kCuda}, checkLine("unspecified launch failure \\(cuda error code: 719\\)")};
  }
  static void expectFirst(const Report& report, const Outcome& outcome) {
    ASSERT_FALSE(outcome.thrown.empty());
    EXPECT_EQ(report.thrown, outcome.thrown[0]);
    if (!report.line.empty()) expectFirstLine(report, outcome);
  }
  static void expectFirstLine(const Report& report, const Outcome& outcome) {
    ASSERT_FALSE(outcome.lines.empty());
    EXPECT_TRUE(std::regex_match(outcome.lines[0], std::regex(report.line))) << outcome.lines[0];
  }

  /// What leaks. Unchecked releases that fail leak; checked ones, whose lines name src/layer.cpp or
  /// src/tensor.cpp, are retried by the next network.
  static host_device::Live lostIn(const Outcome& outcome) {
    const auto having = [](const Lines& texts, const std::string& part) {
      return static_cast<std::size_t>(std::count_if(
          texts.begin(), texts.end(),
          [&](const std::string& text) { return text.find(part) != std::string::npos; }));
    };
    // Whether the first line with that place is of a call that acquires, and not of a release.
    const auto firstAt = [&](const std::string& place, const std::set<std::string>& calls) {
      const bool first = !outcome.raised.empty() && calls.count(outcome.raised[0]) > 0;
      return first ? having({outcome.lines[0]}, place) : 0;
    };
    host_device::Live lost{};
    lost.allocations = having(outcome.raised, "cudaFree") - having(outcome.lines, "src/layer.cpp") -
                       having(outcome.lines, "src/tensor.cpp") +
                       firstAt("src/tensor.cpp", {"cudaMalloc"}) +
                       firstAt("src/layer.cpp", {"cudnnCreate", "cudaMalloc", "cudaMemcpy"});
    lost.handles = static_cast<std::size_t>(
        std::count(outcome.raised.begin(), outcome.raised.end(), "cudnnDestroy"));
    lost.descriptors = having(outcome.raised, "cudnnDestroy") - lost.handles;
    return lost;
  }

  /// After the destruction, the device holds only what a release failed to release, and the cuDNN
  /// handle if the workspace could not be allocated.
  void expectTheRestReleased(const Outcome& outcome) const {
    const auto failed = [&](const char* name) {
      return static_cast<std::size_t>(
          std::count(outcome.raised.begin(), outcome.raised.end(), name));
    };
    const bool noWorkspace =
        failed("cudaMalloc") > 0 && outcome.lines[0].find("src/layer.cpp") != std::string::npos;
    EXPECT_EQ(idle_.allocations + failed("cudaFree"), outcome.left.allocations);
    EXPECT_EQ(idle_.handles + failed("cudnnDestroy") + failed("cublasDestroy_v2") + noWorkspace,
              outcome.left.handles);
  }

  /// The next network gives the expected results, and the device holds no more than before, but for
  /// what leaked.
  void expectNewLife(const host_device::Live& lost) {
    EXPECT_EQ(0, NetworkProbe::count());
    construct();
    EXPECT_EQ(expected_, call_->results(*net_, 1));
    EXPECT_EQ(1, NetworkProbe::count());
    const host_device::Live now = host_device::live();
    EXPECT_EQ(alive_.allocations + lost.allocations, now.allocations);
    if (lost.allocations == 0) {
      EXPECT_EQ(alive_.bytes, now.bytes);
    }
    EXPECT_EQ(alive_.handles + lost.handles, now.handles);
    EXPECT_EQ(alive_.descriptors + lost.descriptors, now.descriptors);
    alive_ = now;
    idle_.allocations += lost.allocations;
    idle_.handles += lost.handles;
  }

  const NetworkTable& table_ = GetParam().table;
  const char* file_ = nullptr;
  std::unique_ptr<Network> net_;
  std::unique_ptr<ForwardCall> call_;
  std::vector<float> expected_;
  Lines trace_;
  std::size_t constructed_ = 0, forwarded_ = 0;
  host_device::Live alive_{}, idle_{};  ///< while a network is alive, and while none is
};

}  // namespace facezoo::test
