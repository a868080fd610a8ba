/// @file
/// What the sweeps over everything that can fail in a network's life have in common.
#pragma once

#include "seeded_network.h"

#include <malloc.h>
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

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

/// What one phase of a network's life threw: whose, empty if nothing, and its value.
using Thrown = std::pair<std::string, int>;

/// Allocates nothing, so that it also tells of an exhausted heap.
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

  /// What came of a failure.
  struct Outcome {
    std::vector<Thrown> thrown;
    Lines lines;             ///< that were printed
    Lines raised;            ///< the calls that failed
    host_device::Live left;  ///< with no network alive
  };

  static constexpr cudaError kCuda = cudaErrorLaunchFailure;
  static constexpr cudnnStatus_t kCudnn = CUDNN_STATUS_MAPPING_ERROR;
  static constexpr cublasStatus_t kCublas = CUBLAS_STATUS_ARCH_MISMATCH;

  void SetUp() override {
    DeviceTest::SetUp();
    omp_set_num_threads(1);  // a fork has no others
    host_device::keepAfterFork(true);
    host_device::poisonFreshMemory(false);  // filling the workspace anew each time takes too long
    file_ = seededFile(table_);
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
    idle_ = host_device::live();
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

  void construct() { net_.reset(GetParam().construct(file_, 1)); }
  void forward() { (*call_)(*net_, 1); }
  void destroy() { net_.reset(); }

  /// Which of `count` points to visit: `share` of the number that FACEZOO_FAULT_POINTS says, evenly
  /// spread, or "all" of them. If it says nothing, of small networks all and of others 24. FANet,
  /// whose weights take the longest, makes do with a third.
  std::vector<std::size_t> points(std::size_t count, double share) const {
    const char* const set = std::getenv("FACEZOO_FAULT_POINTS");
    const bool isSmall = &table_ == &dexpressionNet || &table_ == &smallNetwork;
    const std::size_t number = set ? std::strtoul(set, nullptr, 10) : isSmall ? 0 : 24;
    if (&table_ == &faNet) share /= 3;
    const std::size_t wanted =
        number == 0 ? count : std::clamp<std::size_t>(std::lround(share * number), 2, count);
    std::vector<std::size_t> some(wanted);
    for (std::size_t i = 0; i < wanted; ++i) some[i] = 1 + i * (count - 1) / (wanted - 1);
    return some;
  }

  /// Calls visit(k) for each of `points`, while a network is alive. What failing releases leave
  /// for good goes with a process, before it is too much.
  template <class Visit>
  void visitAll(const std::vector<std::size_t>& points, bool releasesFail, const Visit& visit) {
    const std::size_t atOnce =
        releasesFail ? 1 + (std::size_t{2} << 30) / alive_.bytes : points.size();
    for (std::size_t first = 0; first < points.size() && !HasFailure(); first += atOnce) {
      std::cout.flush();
      const pid_t child = fork();
      if (child == 0) {
        mallopt(M_MMAP_MAX, 0);  // pages that were touched once are kept
        mallopt(M_TRIM_THRESHOLD, INT_MAX);
        construct();
        forward();
        for (std::size_t i = first; i < std::min(first + atOnce, points.size()); ++i) {
          if (!HasFailure()) visit(points[i]);
        }
        std::cout.flush();
        _exit(HasFailure() ? 1 : 0);
      }
      int status = -1;
      EXPECT_EQ(child, waitpid(child, &status, 0));
      EXPECT_EQ(0, status);
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

  /// A life, or only the end of the one that is, during which `begin` has things fail until `end`.
  /// If that is `once`, a network whose pass failed must give its results at once.
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

  /// Whether call k of a life may fail without a word. Releases are checked inside `Forward`, and
  /// print a line where the pool, the blas handle, the cuDNN handle and the workspace go, which is
  /// last.
  bool silent(std::size_t k) const {
    const std::string& name = trace_[k - 1];
    const bool releases = name == "cudaFree" || name.rfind("cudnnDestroy", 0) == 0;
    const bool checked =
        (k > constructed_ && k <= forwarded_) || k + table_.bufferCount + 3 > trace_.size();
    return name == "cudaMemcpy2D" || name == "cudaLaunchKernel" || name == "cudnnDestroy" ||
           (releases && !checked);
  }

  /// What a failure throws and prints, a regular expression; empty if it prints nothing.
  struct Report {
    Thrown thrown;
    std::string line;
  };
  static std::string checkLine(const std::string& text) {
    return "\\[Error\\] " + text + " at (src|include|tests)/\\S+ line \\d+";
  }
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

  /// Lost for good is what an unchecked release failed to release: the checked ones, which print
  /// where they stand, are tried again by the next network.
  static host_device::Live lostIn(const Outcome& outcome) {
    const auto having = [](const Lines& texts, const std::string& part) {
      return static_cast<std::size_t>(std::count_if(
          texts.begin(), texts.end(),
          [&](const std::string& text) { return text.find(part) != std::string::npos; }));
    };
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

  /// With no network alive, nothing is left but what failed to be released, and a handle whose
  /// workspace could not be had.
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

  /// A new life works as if nothing had been, and holds what it should.
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
