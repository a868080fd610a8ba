#include "team.h"

#include "host_device.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <thread>

namespace host_device {
namespace {

/// A number that threads wait for to change: first awake, for longer than waking up takes, then
/// asleep. Beside another busy process, the one that is waited for may need this very processor.
class Signal {
 public:
  std::uint32_t value() const { return value_.load(); }
  void change() {
    ++value_;
    if (sleepers_.load() > 0) futex(FUTEX_WAKE_PRIVATE, INT_MAX);
  }
  /// Returns when the value is no longer `seen`.
  void await(std::uint32_t seen) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::microseconds awake{200};
    constexpr int looks = 64;
    for (const auto end = Clock::now() + awake; Clock::now() < end;) {
      for (int i = 0; i < looks; ++i) {
        if (value() != seen) return;
        pause();
      }
    }
    ++sleepers_;
    while (value() == seen) futex(FUTEX_WAIT_PRIVATE, seen);
    --sleepers_;
  }

 private:
  static void pause() {
#ifdef __x86_64__
    __builtin_ia32_pause();
#else
    asm volatile("yield");
#endif
  }
  void futex(int operation, std::uint32_t number) {
    static_assert(sizeof value_ == sizeof(std::uint32_t), "is what the system looks at");
    syscall(SYS_futex, &value_, operation, number, nullptr, nullptr, 0);
  }

  std::atomic<std::uint32_t> value_{0};
  std::atomic<int> sleepers_{0};
};

/// Whether this thread, for now, is the one that the team works for.
class Turn {
 public:
  explicit Turn(std::atomic<bool>& taken) : taken_(taken), mine_(!taken.exchange(true)) {}
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() {
    if (mine_) taken_ = false;
  }
  bool isMine() const { return mine_; }

 private:
  std::atomic<bool>& taken_;
  const bool mine_;
};

/// Threads that wait for work, and the one that gives it to them.
class Team {
 public:
  /// Starts threads until there are `wanted`, the caller included, or no more can be had. @return
  /// how many there are; 1 while the team works for another thread
  std::size_t grow(std::size_t wanted) {
    const Turn turn(taken_);
    if (!turn.isMine()) return 1;
    if (wanted > tried_) {
      tried_ = wanted;
      while (size_ < wanted && start()) ++size_;
    }
    return std::min(wanted, size_);
  }

  void run(std::size_t threads, Work* work, const void* context) {
    const Turn turn(taken_);
    threads = turn.isMine() ? std::min(threads, size_) : 1;
    if (threads <= 1) return work(context, {0, 1});
    work_ = work;
    context_ = context;
    threads_ = threads;
    unfinished_ = size_ - 1;
    callersProcessor_ = sched_getcpu();
    const std::uint32_t seen = finished_.value();
    begun_.change();
    work(context, {0, threads});
    finished_.await(seen);
  }

  void meet() {
    const std::uint32_t seen = met_.value();
    if (++arrived_ == threads_) {
      arrived_ = 0;
      met_.change();
    } else {
      met_.await(seen);
    }
  }

 private:
  struct Place {
    Team& team;
    std::size_t index;
    std::uint32_t seen;
  };

  bool start() {
    auto* const place = new (std::nothrow) Place{*this, size_, begun_.value()};
    if (place == nullptr) return false;
    constexpr std::size_t stackBytes = std::size_t{1} << 20;
    pthread_attr_t attributes;
    pthread_t thread;
    bool started = pthread_attr_init(&attributes) == 0;
    if (started) {
      pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
      pthread_attr_setstacksize(&attributes, stackBytes);
      // The host's signals are for the host's threads; a fault is its thread's own.
      sigset_t hosts, before;
      sigfillset(&hosts);
      for (const int fault : {SIGBUS, SIGFPE, SIGILL, SIGSEGV}) sigdelset(&hosts, fault);
      pthread_sigmask(SIG_SETMASK, &hosts, &before);
      started = pthread_create(&thread, &attributes, live, place) == 0;
      pthread_sigmask(SIG_SETMASK, &before, nullptr);
      pthread_attr_destroy(&attributes);
    }
    if (!started) delete place;
    return started;
  }

  /// Moves this thread to another processor if it is on the caller's. Some systems leave threads
  /// that sleep often on one processor, where they can only run by turns.
  void leaveCaller() const {
    cpu_set_t allowed;
    if (sched_getcpu() != callersProcessor_ || callersProcessor_ < 0 ||
        sched_getaffinity(0, sizeof allowed, &allowed) != 0) {
      return;
    }
    cpu_set_t others = allowed;
    CPU_CLR(callersProcessor_, &others);
    if (CPU_COUNT(&others) > 0 && sched_setaffinity(0, sizeof others, &others) == 0)
      sched_setaffinity(0, sizeof allowed, &allowed);
  }

  static void* live(void* place) {
    auto [team, index, seen] = *static_cast<Place*>(place);
    delete static_cast<Place*>(place);
    while (true) {
      team.begun_.await(seen);
      seen = team.begun_.value();
      if (index < team.threads_) {
        team.leaveCaller();
        team.work_(team.context_, {index, team.threads_});
      }
      if (--team.unfinished_ == 0) team.finished_.change();
    }
  }

  std::atomic<bool> taken_{false};
  std::size_t size_ = 1, tried_ = 1;
  Work* work_ = nullptr;
  const void* context_ = nullptr;
  std::size_t threads_ = 1;  ///< that take part in the work
  int callersProcessor_ = -1;
  std::atomic<std::size_t> unfinished_{0}, arrived_{0};
  Signal begun_, finished_, met_;
};

std::atomic<Team*> current{nullptr};

/// Null if there is no memory for one. Never destroyed: its threads live as long as the process.
Team* team() {
  static const int forks =  // the threads stay behind, and what they were at with them
      pthread_atfork(nullptr, nullptr, [] { current = nullptr; });
  if (forks != 0) return nullptr;
  Team* there = current;
  if (there != nullptr) return there;
  auto* const made = new (std::nothrow) Team;
  if (made != nullptr && current.compare_exchange_strong(there, made)) return made;
  delete made;
  return there;
}

/// The number that an environment variable starts with; the largest if it has none.
std::size_t numberIn(const char* variable) {
  const char* const text = std::getenv(variable);
  const long number = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
  return number > 0 ? static_cast<std::size_t>(number) : SIZE_MAX;
}

std::size_t processors() {
  static const std::size_t count = std::max(1U, std::thread::hardware_concurrency());
  return count;
}

std::atomic<std::size_t>& wantedThreads() {
  static std::atomic<std::size_t> threads{
      std::min(numberIn("OMP_NUM_THREADS"), numberIn("OMP_THREAD_LIMIT"))};
  return threads;
}

}  // namespace

void useThreads(int threads) {
  wantedThreads() = threads > 0 ? static_cast<std::size_t>(threads) : SIZE_MAX;
}

std::size_t teamSize() {
  const std::size_t wanted = std::min(wantedThreads().load(), processors());
  if (wanted == 1) return 1;
  Team* const there = team();
  return there != nullptr ? there->grow(wanted) : 1;
}

void shareWork(std::size_t threads, Work* work, const void* context) {
  Team* const there = threads > 1 ? team() : nullptr;
  if (there == nullptr) return work(context, {0, 1});
  there->run(threads, work, context);
}

void Member::meet() const {
  if (count > 1) current.load()->meet();
}

}  // namespace host_device
