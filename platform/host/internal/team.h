/// @file
/// The threads that share the work of one call of the CPU platform.
#pragma once

#include <cstddef>

namespace host_device {

/// Part `index` of [0, count) cut into `parts` even ones.
struct Range {
  std::size_t begin, end;
};
inline Range part(std::size_t count, std::size_t index, std::size_t parts) {
  return {count * index / parts, count * (index + 1) / parts};
}

/// How many threads may share the calls of this thread, itself included: as many as `useThreads`
/// or the environment asks for, but no more than there are processors, and no more than could be
/// started. They are started by the first call that asks.
std::size_t teamSize();

/// One of the threads that share a call, as its part of the work sees it.
struct Member {
  std::size_t index, count;  ///< index < count; the calling thread is number 0

  /// Returns when all `count` threads have called it.
  void meet() const;
};

using Work = void(const void* context, const Member& member);
/// Has `threads` threads, or fewer where there are no more, run work(context, member), and returns
/// when all have. The calling thread works alone if the team works for another thread just then.
void shareWork(std::size_t threads, Work* work, const void* context);

/// The same for a function object body(member).
template <class Body>
void share(std::size_t threads, const Body& body) {
  const auto work = [](const void* context, const Member& member) {
    (*static_cast<const Body*>(context))(member);
  };
  shareWork(threads, work, &body);
}

}  // namespace host_device
