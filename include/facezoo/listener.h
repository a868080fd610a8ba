/// @file
/// For programs that say in their own words what fails.
#pragma once

#include "export.h"
#include "message_pack.h"

namespace facezoo {

/// Hears what the library would print, in its place, and sees the weights that it loads.
/// Process-wide and unsynchronized, as all that the library shares: see `GPU::getMutex`.
class FACEZOO_EXPORT Listener {
 public:
  /// Listens from now on. Who listened before hears nothing until this one is gone.
  Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  /// Listeners go in the reverse order of their construction.
  virtual ~Listener();

  /// A line that the library would print on standard output or standard error. What it is about is
  /// thrown next, but for a release that fails in a destructor.
  /// @param line without its end, valid during the call; of more than 1023 bytes, the first
  virtual void onLine(const char* line) noexcept;

  /// A weight file has been read and parsed, and the network's layers are about to take their
  /// arrays from it. What this throws leaves the network's constructor.
  /// @param root with payloads, valid during the call; arrays and maps inside a map are empty
  virtual void onDocument(const msgpack::v1::object& root);

 private:
  Listener* before_;
};

}  // namespace facezoo
