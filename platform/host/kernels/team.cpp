#include "team.h"

#include <omp.h>
#include <pthread.h>
#include <sys/stat.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace host_device {
namespace {

/// How many of `wanted` threads there can be at once, the calling one included.
int startable(int wanted) {
  std::vector<pthread_t> started;
  started.reserve(wanted);
  std::mutex gate;
  const auto wait = [](void* held) -> void* {
    const std::lock_guard<std::mutex> passed(*static_cast<std::mutex*>(held));
    return nullptr;
  };
  {
    const std::lock_guard<std::mutex> closed(gate);
    for (pthread_t thread; static_cast<int>(started.size()) + 1 < wanted; started.push_back(thread))
      if (pthread_create(&thread, nullptr, wait, &gate) != 0) break;
  }
  for (const pthread_t thread : started) pthread_join(thread, nullptr);
  return static_cast<int>(started.size()) + 1;
}

/// Whether this process was forked by one of several threads. Those are gone, but OpenMP's runtime
/// would wait for them for ever if they were a team of the host's own.
bool lostThreads = false;

bool hasOtherThreads() {
  struct stat threads = {};
  constexpr nlink_t kOwnAndParentOfFolder = 2;
  return stat("/proc/self/task", &threads) != 0 || threads.st_nlink > kOwnAndParentOfFolder + 1;
}

thread_local bool forksAmongThreads = false;
void noteFork() { forksAmongThreads = hasOtherThreads(); }
void noteLoss() { lostThreads = lostThreads || forksAmongThreads; }

/// From the time when the library is loaded on: a host may fork before its first call.
[[maybe_unused]] const int forksAreNoted = pthread_atfork(noteFork, nullptr, noteLoss);

}  // namespace

int teamSize() {
  if (lostThreads) return 1;
  // Each thread of a host that makes calls has a team of its own.
  thread_local int tried = 1, possible = 1;
  const int wanted = std::min(omp_get_max_threads(), omp_get_num_procs());
  if (wanted > tried) {
    possible = startable(wanted);
    tried = wanted;
  }
  return std::min(wanted, possible);
}

}  // namespace host_device
