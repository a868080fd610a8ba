/// @file
/// How the work of a call is shared by threads.
#pragma once

#include <cstddef>

#include "team.h"

namespace host_device {

inline std::size_t dividedUp(std::size_t a, std::size_t b) { return (a + b - 1) / b; }

/// Calls body(worker, begin, end) for ranges that make up [0, count): one for each thread, or a
/// single one when there is less to do than it takes to wake the threads. Workers are numbered from
/// 0 and there are teamSize() at most.
///
/// @param work values that each of the `count` items has
template <class Body>
void forWorkers(std::size_t count, std::size_t work, const Body& body) {
  constexpr std::size_t worthWaking = 16384;
  const bool pays = count >= 2 && count * work >= worthWaking;
  share(pays ? teamSize() : 1, [&](const Member& member) {
    const Range own = part(count, member.index, member.count);
    if (own.begin < own.end) body(member.index, own.begin, own.end);
  });
}

/// The same for a body(begin, end) that needs nothing of its own.
template <class Body>
void forRanges(std::size_t count, std::size_t work, const Body& body) {
  forWorkers(count, work,
             [&](std::size_t /*worker*/, std::size_t begin, std::size_t end) { body(begin, end); });
}

}  // namespace host_device
