/// @file
/// One convolution, and the algorithms that can compute it.
#pragma once

#include <cudnn.h>

#include <cstddef>
#include <cstdint>

#include "kernels/kernels.h"
#include "kernels/parallel.h"
#include "memory/device_memory.h"

namespace host_device {

struct Problem {
  int n, c, k;
  Axis vertical, horizontal;

  std::size_t inputPlane() const { return std::size_t{1} * vertical.input * horizontal.input; }
  std::size_t outputPlane() const { return std::size_t{1} * vertical.output * horizontal.output; }
  /// Products that add up to one output.
  std::size_t depth() const { return std::size_t{1} * c * vertical.kernel * horizontal.kernel; }
  /// Groups of as many output channels as `multiply` computes rows.
  std::size_t rowGroups() const { return dividedUp(k, kernels().products.rows); }
};

/// The bias is null in a plain convolution; with one, the result is rectified.
struct Operands {
  const float* x;
  const float* w;
  const float* bias;
  float* y;
  void* workspace;
  std::size_t workspaceBytes;
};

/// A way to compute a convolution.
struct Algorithm {
  cudnnConvolutionFwdAlgo_t id;
  bool (*supports)(const Problem&);
  /// Whether it is faster than what comes after it.
  bool (*pays)(const Problem&);
  /// What it needs at least; more lets it work on more at once.
  std::size_t (*workspaceBytes)(const Problem&);
  void (*run)(const Problem&, const Operands&);
};

inline bool always(const Problem& /*problem*/) { return true; }

/// Winograd's minimal filtering, for 3 x 3 and 5 x 5 with stride 1.
extern const Algorithm winograd;
/// A matrix product with columns of the input that are gathered panel by panel.
extern const Algorithm panels;
/// Plain loops, which need nothing: the last resort.
extern const Algorithm loops;

/// Deals out a workspace, from the first cache line in it.
class Scratch {
 public:
  static constexpr std::size_t lineBytes = 64;
  static constexpr std::size_t line = lineBytes / sizeof(float);

  explicit Scratch(const Operands& operands) {
    auto* const start = static_cast<char*>(operands.workspace);
    const auto offset = reinterpret_cast<std::uintptr_t>(start) % lineBytes;
    next_ = reinterpret_cast<float*>(offset > 0 ? start + lineBytes - offset : start);
    end_ = reinterpret_cast<float*>(start + operands.workspaceBytes);
  }

  std::size_t floatsLeft() const { return end_ - next_; }
  float* take(std::size_t floats) {
    float* const taken = next_;
    next_ += lines(floats);
    return taken;
  }
  static std::size_t lines(std::size_t floats) { return dividedUp(floats, line) * line; }
  /// Bytes of a workspace that starts anywhere and holds `floats`.
  static std::size_t bytes(std::size_t floats) { return (floats + line) * sizeof(float); }

 private:
  float *next_, *end_;
};

}  // namespace host_device
