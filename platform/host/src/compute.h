/// @file
/// What the compute calls share: checks of their operands, and how their hot loops are compiled and
/// spread over threads.
#pragma once

#include <cudnn.h>
#include <omp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "descriptors.h"
#include "device_memory.h"
#include "team.h"

/// Marks a leaf function to be compiled for several instruction sets, the best chosen at load. It
/// must be called from parallel regions, not hold them: outlined regions are not cloned. Sanitizers
/// are not ready yet when the choice is made.
#ifdef FACEZOO_SANITIZED
#define HOST_DEVICE_CLONES
#else
#define HOST_DEVICE_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#endif
/// Marks what such a leaf function is made of, so that it is compiled with each of the clones.
#define HOST_DEVICE_INLINE [[gnu::always_inline]] inline

namespace host_device {
namespace detail {

inline std::int64_t address(const void* pointer) {
  return reinterpret_cast<std::intptr_t>(pointer);
}

inline std::size_t dividedUp(std::size_t a, std::size_t b) { return (a + b - 1) / b; }

/// Part `index` of [0, count) cut into `parts` even ones.
struct Range {
  std::size_t begin, end;
};
inline Range part(std::size_t count, std::size_t index, std::size_t parts) {
  return {count * index / parts, count * (index + 1) / parts};
}

inline bool isSet(const cudnnTensorStruct* tensor) { return allLive(tensor) && tensor->n > 0; }

inline bool sameShape(const cudnnTensorStruct& a, const cudnnTensorStruct& b) {
  return a.n == b.n && a.c == b.c && a.h == b.h && a.w == b.w;
}

inline bool overlap(const void* a, std::size_t aBytes, const void* b, std::size_t bBytes) {
  const auto aBegin = reinterpret_cast<std::uintptr_t>(a);
  const auto bBegin = reinterpret_cast<std::uintptr_t>(b);
  return aBegin < bBegin + bBytes && bBegin < aBegin + aBytes;
}

/// Result = operation, unblended, is all that most calls offer.
inline cudnnStatus_t checkPlain(const void* alpha, const void* beta) {
  if (!alpha || !beta) return CUDNN_STATUS_BAD_PARAM;
  const bool plain =
      *static_cast<const float*>(alpha) == 1.0f && *static_cast<const float*>(beta) == 0.0f;
  return plain ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_NOT_SUPPORTED;
}

/// Whether x and y are set descriptors with as much device memory behind them as they describe.
inline bool areMapped(const cudnnTensorStruct* xDesc, const void* x, const cudnnTensorStruct* yDesc,
                      const void* y) {
  return isSet(xDesc) && isSet(yDesc) && isDevice(x, xDesc->bytes()) && isDevice(y, yDesc->bytes());
}

/// The most workers that one of this thread's calls of `forWorkers` has.
inline std::size_t mostWorkers() { return teamSize(); }

/// Calls body(worker, begin, end) for ranges that make up [0, count): one for each thread, or a
/// single one when there is less to do than it takes to wake the threads. Workers are numbered from
/// 0; the number of the calling thread says nothing of them, as it may be one of a host's own team.
///
/// @param work values that each of the `count` items has
template <class Body>
void forWorkers(std::size_t count, std::size_t work, const Body& body) {
  constexpr std::size_t enough = 16384;
  if (count < 2 || count * work < enough) {
    body(std::size_t{0}, std::size_t{0}, count);
    return;
  }
#pragma omp parallel num_threads(teamSize())
  {
    const std::size_t threads = omp_get_num_threads(), thread = omp_get_thread_num();
    const Range own = part(count, thread, threads);
    if (own.begin < own.end) body(thread, own.begin, own.end);
  }
}

/// The same for a body(begin, end) that needs nothing of its own.
template <class Body>
void forRanges(std::size_t count, std::size_t work, const Body& body) {
  forWorkers(count, work,
             [&](std::size_t /*worker*/, std::size_t begin, std::size_t end) { body(begin, end); });
}

template <class Body>
void forPieces(std::size_t count, const Body& body) {
  forRanges(count, 1, body);
}

}  // namespace detail
}  // namespace host_device
