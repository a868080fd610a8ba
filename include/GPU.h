/// @file
/// Device selection, and the one lock that the library offers.
#pragma once

#include "facezoo/errors.h"
#include "facezoo/export.h"

#include <mutex>

/// Chooses the CUDA device that the library uses. A host constructs one `GPU` before its first
/// network; constructing more has no effect.
///
/// The library takes no lock, and its state is process-wide. A host that calls it from several
/// threads holds `getMutex()` around every construction, `Forward` and destruction, this class's
/// constructor included. The current device is a setting of each thread: on every thread other than
/// the one that constructed the first `GPU`, the host calls `cudaSetDevice(gpu.getDeviceID())`
/// before it calls the library.
class FACEZOO_EXPORT GPU {
 public:
  /// Makes the first device of compute capability 5.0 or higher with at least 2048 MiB the current
  /// device of this thread. If a device has been chosen before, it makes no CUDA call.
  ///
  /// @throws GPUError 0 if no device qualifies
  /// @throws cudaError if the runtime fails. After a throw nothing is chosen, and the next `GPU()`
  ///         looks for a device again
  GPU();
  /// @{
  /// Copying has no effect, as all objects stand for the same choice.
  GPU(const GPU&) = default;
  GPU& operator=(const GPU&) = default;
  GPU& operator=(GPU&&) { return *this; }  // NOLINT(performance-noexcept-move-constructor)
  /// @}

  /// Index of the chosen device; -1 if none has been chosen.
  int getDeviceID();

  /// The process-wide recursive lock, which the host uses and the library never takes.
  static std::recursive_mutex& getMutex();

 protected:
  static int DeviceID;              ///< what `getDeviceID` returns
  static std::recursive_mutex mtx;  ///< what `getMutex` returns
};
