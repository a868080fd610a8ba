#include "endings.h"

#include "client/temporaries.h"

#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

using namespace facezoo;

namespace {

struct Ending {
  int signal;
  const char* line;
};
constexpr Ending kEndings[] = {
    {SIGHUP, "ended, as its terminal was closed"},
    {SIGINT, "interrupted"},
    {SIGQUIT, "interrupted (SIGQUIT)"},
    {SIGTERM, "ended by another process"},
    {SIGXCPU, "ended, as it has used the processor time that it may"},
    {SIGALRM, "ended by SIGALRM"},
    {SIGPOLL, "ended by SIGPOLL"},
    {SIGPROF, "ended by SIGPROF"},
    {SIGPWR, "ended by SIGPWR"},
    {SIGSTKFLT, "ended by SIGSTKFLT"},
    {SIGUSR1, "ended by SIGUSR1"},
    {SIGUSR2, "ended by SIGUSR2"},
    {SIGVTALRM, "ended by SIGVTALRM"},
#ifndef FACEZOO_SANITIZED  // which explain faults at length
    {SIGABRT, "ended by a fault of its own (SIGABRT)"},
    {SIGBUS, "ended by a fault of its own (SIGBUS)"},
    {SIGFPE, "ended by a fault of its own (SIGFPE)"},
    {SIGILL, "ended by a fault of its own (SIGILL)"},
    {SIGSEGV, "ended by a fault of its own (SIGSEGV)"},
    {SIGSYS, "ended by a fault of its own (SIGSYS)"},
    {SIGTRAP, "ended by a fault of its own (SIGTRAP)"},
#endif
};

std::atomic_flag hasEnded = ATOMIC_FLAG_INIT;
std::atomic<bool> exits{false};

/// Works wherever the process was interrupted, without any memory. Returns to the first caller
/// only.
void removeAndSay(const char* line) {
  // A handler that interrupted this would wait for it below.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  while (hasEnded.test_and_set()) pause();
  removeTemporaries();
  iovec pieces[] = {{const_cast<char*>("facezoo: "), 9},
                    {const_cast<char*>(line), std::strlen(line)},
                    {const_cast<char*>("\n"), 1}};
  if (writev(STDERR_FILENO, pieces, 3) < 0) return;  // there is nowhere to say it
}

/// Ends the process by the signal itself: a shell goes on with its loop after any other end.
void dieOf(int signal) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, signal);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
}

extern "C" void endBySignal(int signal) {
  for (const auto& [number, line] : kEndings)
    if (number == signal) removeAndSay(line);
  dieOf(signal);
}

bool lacksMemory() {
  if (std::current_exception() == nullptr) return false;
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return true;
  } catch (...) {
    return false;
  }
}

/// Destructors of JSON values ask for memory and let nothing pass, so that want of it ends here,
/// too.
[[noreturn]] void endByException() {
  if (lacksMemory()) {
    removeAndSay("out of memory");
    _exit(EXIT_FAILURE);
  }
  removeAndSay("ended by a fault of its own: nothing caught an exception");
  dieOf(SIGABRT);
  std::abort();
}

/// OpenMP's runtime exits if it gets no thread or no memory.
void endByExit() {
  if (exits) return;
  removeAndSay("ended by a library that it uses, as for want of threads or memory");
  _exit(EXIT_FAILURE);  // other threads still use what the other handlers would destroy
}

}  // namespace

bool handleEnds() {
  std::signal(SIGXFSZ, SIG_IGN);
  const bool heedsPipes = std::signal(SIGPIPE, SIG_IGN) != SIG_IGN;
  struct sigaction action = {};
  action.sa_handler = endBySignal;
#ifndef FACEZOO_SANITIZED  // which have a stack of their own there
  // A stack that is full has no room for a handler.
  static std::array<char, 1 << 14> reserve;
  stack_t stack = {};
  stack.ss_sp = reserve.data();
  stack.ss_size = reserve.size();
  if (sigaltstack(&stack, nullptr) == 0) action.sa_flags = SA_ONSTACK;
#endif
  sigfillset(&action.sa_mask);
  for (const Ending& ending : kEndings) {
    struct sigaction before = {};
    sigaction(ending.signal, nullptr, &before);
    if (before.sa_handler == SIG_IGN) continue;  // as under nohup
    sigaction(ending.signal, &action, nullptr);
  }
  std::set_terminate(endByException);
  std::atexit(endByExit);  // without it, such an end is not noticed
  return heedsPipes;
}

int endWith(int code) {
  exits = true;
  return code;
}
