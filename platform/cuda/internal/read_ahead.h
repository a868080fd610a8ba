/// @file
/// How one thread of a device visits many values in their order without waiting for each. In a
/// namespace of its own, because a test of the CPU build compiles it beside the CPU's
/// `device_code`. Keeps to C++14 for the oldest supported nvcc.
#pragma once

#include <cuda_runtime.h>

#include <cstdint>

namespace read_ahead {
namespace detail {

// A thread that has one chain of multiply-adds has nothing else to wait with. While it works off
// one batch, the loads of the next are under way: at four cycles each, 128 multiply-adds outlast
// the way to the second-level cache, where the layer before has left its results.
struct alignas(16) Wide {  // the widest load
  float values[4];
};
struct Batch {
  Wide wide[32];
};
constexpr int batchSize = sizeof(Batch) / sizeof(float);

/// @param in aligned for wide loads
__device__ inline Batch readBatch(const float* in) {
  Batch batch;
#pragma unroll
  for (int i = 0; i < batchSize / 4; ++i) batch.wide[i] = reinterpret_cast<const Wide*>(in)[i];
  return batch;
}

template <class Body>
__device__ void visit(const Batch& batch, const Body& body) {
#pragma unroll
  for (const Wide& wide : batch.wide) {
#pragma unroll
    for (float value : wide.values) body(value);
  }
}

}  // namespace detail

/// Calls body(in[i]) for i = 0, 1, ..., count - 1.
template <class Body>
__device__ void inOrder(const float* in, int count, const Body& body) {
  using namespace detail;
  const float* const end = in + count;
  for (; in != end && reinterpret_cast<std::uintptr_t>(in) % alignof(Wide) != 0; ++in) body(*in);
  if (end - in >= batchSize) {
    Batch now = readBatch(in);
#pragma unroll 1
    for (in += batchSize; end - in >= batchSize; in += batchSize) {
      const Batch next = readBatch(in);
      visit(now, body);
      now = next;
    }
    visit(now, body);
  }
  for (; in != end; ++in) body(*in);
}

}  // namespace read_ahead
