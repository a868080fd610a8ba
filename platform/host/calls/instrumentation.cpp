#include "instrumentation.h"

#include "host_device.h"

#include <pthread.h>

#include <mutex>
#include <utility>

namespace host_device {
namespace {

struct Watch {
  std::recursive_mutex mutex;
  std::function<void(const Call&)> observer;
  bool faulty = false;
  Fault fault;
  std::size_t counted = 0;
  std::vector<const char*> raised;
  Statuses planned{};
};

/// Never destroyed: calls may still come while the process ends.
Watch& watch() {
  static Watch& instance = *new Watch;
  return instance;
}

/// The status of every call in a forked process, if the platform was in use before the fork: the
/// process has its memory, but not its threads, and a lock may be held by one of them. A card's
/// runtime answers the same.
constexpr Statuses kForked = {cudaErrorInitializationError, CUDNN_STATUS_NOT_INITIALIZED,
                              CUBLAS_STATUS_NOT_INITIALIZED};
std::atomic<bool> forked{false}, expectsForks{false}, keepsAfterFork{false};

void noteFork() {
  if (keepsAfterFork) return;
  forked = true;
  instrumented = true;
}

/// Called under the lock.
void expectForks() {
  if (expectsForks) return;
  if (pthread_atfork(nullptr, nullptr, noteFork) != 0) throw std::bad_alloc();
  expectsForks = true;
}

void refresh(const Watch& w) { instrumented = !expectsForks || forked || w.faulty || w.observer; }

thread_local bool insideObserver = false;

struct InsideObserver {
  InsideObserver() { insideObserver = true; }
  ~InsideObserver() { insideObserver = false; }
};

void tell(const Watch& w, const char* name, std::initializer_list<std::int64_t> arguments) {
  if (!w.observer) return;
  const auto observer = w.observer;  // it may replace itself
  const InsideObserver inside;
  observer({name, arguments});
}

}  // namespace

std::atomic<bool> instrumented{true};  // until the first call has prepared for forks

const Statuses* record(const char* name, std::initializer_list<std::int64_t> arguments) {
  if (forked) return &kForked;
  if (insideObserver) return nullptr;
  Watch& w = watch();
  const std::lock_guard<std::recursive_mutex> lock(w.mutex);
  expectForks();
  refresh(w);
  tell(w, name, arguments);
  if (!w.faulty || (!w.fault.name.empty() && w.fault.name != name)) return nullptr;
  ++w.counted;
  const bool fails = w.fault.fromThenOn ? w.counted >= w.fault.at : w.counted == w.fault.at;
  if (!fails) return nullptr;
  w.raised.push_back(name);
  w.planned = {w.fault.cuda, w.fault.cudnn, w.fault.cublas};
  return &w.planned;
}

void recordReport(const char* name) {
  if (__builtin_expect(!instrumented.load(std::memory_order_relaxed), 1) || insideObserver) return;
  if (forked) return;
  Watch& w = watch();
  const std::lock_guard<std::recursive_mutex> lock(w.mutex);
  tell(w, name, {});
}

void setObserver(std::function<void(const Call&)> observer) {
  Watch& w = watch();
  const std::lock_guard<std::recursive_mutex> lock(w.mutex);
  w.observer = std::move(observer);
  refresh(w);
}

void setFault(const Fault& fault) {
  Watch& w = watch();
  const std::lock_guard<std::recursive_mutex> lock(w.mutex);
  w.fault = fault;
  w.faulty = true;
  w.counted = 0;
  w.raised.clear();
  w.raised.reserve(1);  // one failure is noted even where memory has run out
  refresh(w);
}

void clearFault() {
  Watch& w = watch();
  const std::lock_guard<std::recursive_mutex> lock(w.mutex);
  w.faulty = false;
  refresh(w);
}

void keepAfterFork(bool on) { keepsAfterFork = on; }

std::vector<std::string> raisedFaults() {
  Watch& w = watch();
  const std::lock_guard<std::recursive_mutex> lock(w.mutex);
  return {w.raised.begin(), w.raised.end()};
}

}  // namespace host_device
