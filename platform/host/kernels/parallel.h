/// @file
/// How the work of a call is shared by threads.
#pragma once

#include <omp.h>

#include <cstddef>

#include "team.h"

namespace host_device {

inline std::size_t dividedUp(std::size_t a, std::size_t b) { return (a + b - 1) / b; }

/// Part `index` of [0, count) cut into `parts` even ones.
struct Range {
  std::size_t begin, end;
};
inline Range part(std::size_t count, std::size_t index, std::size_t parts) {
  return {count * index / parts, count * (index + 1) / parts};
}

/// Calls body(worker, begin, end) for ranges that make up [0, count): one for each thread, or a
/// single one when there is less to do than it takes to wake the threads. Workers are numbered from
/// 0. OpenMP's number of the calling thread is not one of theirs: it may come from a team of the
/// host's. There are teamSize() workers at most.
///
/// @param work values that each of the `count` items has
template <class Body>
void forWorkers(std::size_t count, std::size_t work, const Body& body) {
  constexpr std::size_t worthWaking = 16384;
  if (count < 2 || count * work < worthWaking) {
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

}  // namespace host_device
