#include "library.h"

#include "client/devices.h"
#include "module.h"

#include <unistd.h>

#include <chrono>
#include <thread>

namespace nb = nanobind;

namespace {

/// What happens to the process. Python's lock guards it.
struct {
  bool isUsed = false, isForked = false, isEnding = false;
  int visits = 0;  ///< threads that the library's calls have not returned to
  std::thread::id ending;
} state;

void afterFork() {
  state.isForked = state.isUsed;
  state.visits = 0;  // those threads are the parent's
}

/// Waits for the calls of other threads, as daemons are not waited for otherwise.
void beforeExit() {
  state.isEnding = true;
  state.ending = std::this_thread::get_id();
  while (state.visits > 0) {
    const nb::gil_scoped_release release;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace

bool isForked() { return state.isForked; }

Visit::Visit() {
  if (state.isForked) {
    throw PackageError(PackageError::general,
                       "facezoo cannot be used in a process that was forked after it was used; "
                       "call multiprocessing.set_start_method(\"spawn\") before, or use it in the "
                       "forked processes only");
  }
  if (state.isEnding && state.ending != std::this_thread::get_id()) {
    const nb::gil_scoped_release release;
    for (;;) pause();
  }
  state.isUsed = true;
  ++state.visits;
}

Visit::~Visit() { --state.visits; }

CurrentDevice::CurrentDevice() {
  if (cudaGetDevice(&before_) != cudaSuccess) before_ = -1;
  GPU gpu;
  chosen_ = gpu.getDeviceID();
  if (chosen_ != before_) facezoo::checkCall(cudaSetDevice(chosen_), "choice of the device");
}

CurrentDevice::~CurrentDevice() {
  if (before_ >= 0 && before_ != chosen_) cudaSetDevice(before_);
}

void bindProcess() {
  nb::module_::import_("os").attr("register_at_fork")(nb::arg("after_in_child") =
                                                          nb::cpp_function(afterFork));
  nb::module_::import_("atexit").attr("register")(nb::cpp_function(beforeExit));
}
