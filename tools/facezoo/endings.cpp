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
#ifndef FACEZOO_SANITIZED  // sanitizers explain faults themselves
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
std::atomic<bool> exitIsIntended{false};

/// Removes incomplete files and prints `line`, wherever the process was interrupted: it takes no
/// memory. Of several callers only the first returns; the others wait until the process has ended.
void removeAndSay(const char* line) {
  // A signal handler that interrupted this function would wait for it forever in the loop below.
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  while (hasEnded.test_and_set()) pause();
  removeTemporaries();
  iovec pieces[] = {{const_cast<char*>("facezoo: "), 9},
                    {const_cast<char*>(line), std::strlen(line)},
                    {const_cast<char*>("\n"), 1}};
  if (writev(STDERR_FILENO, pieces, 3) < 0) return;  // there is nobody to tell
}

/// Ends the process by the signal itself: only then does a shell leave its loop, too.
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

/// Also called where memory is short: destructors of JSON values allocate and let no exception
/// pass.
[[noreturn]] void endByException() {
  try {
    if (std::current_exception() != nullptr) throw;
  } catch (const std::bad_alloc&) {
    removeAndSay("out of memory");
    _exit(EXIT_FAILURE);
  } catch (...) {  // said below
  }
  removeAndSay("ended by a fault of its own: nothing caught an exception");
  dieOf(SIGABRT);
  std::abort();
}

/// Called where a library ends the process, which would leave incomplete files without a word.
void endByExit() {
  if (exitIsIntended) return;
  removeAndSay("ended by a library that it uses");
  _exit(EXIT_FAILURE);  // an exit would destroy objects that other threads still use
}

}  // namespace

bool handleEnds() {
  std::signal(SIGXFSZ, SIG_IGN);
  const bool diesOfSigpipe = std::signal(SIGPIPE, SIG_IGN) != SIG_IGN;
  struct sigaction action = {};
  action.sa_handler = endBySignal;
#ifndef FACEZOO_SANITIZED  // sanitizers bring a stack of their own
  // Handlers get a stack of their own: that of the thread may be full.
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
    if (before.sa_handler == SIG_IGN) continue;  // stays ignored, as under nohup
    sigaction(ending.signal, &action, nullptr);
  }
  std::set_terminate(endByException);
  std::atexit(endByExit);  // if that fails, such an exit passes unnoticed
  return diesOfSigpipe;
}

int endWith(int code) {
  exitIsIntended = true;
  return code;
}
