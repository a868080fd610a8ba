/// @file
/// Lets a program report failures in its own words.
#pragma once

#include "export.h"
#include "message_pack.h"

namespace facezoo {

/// Hears what the library would print, in its place, and sees the weights that it loads.
/// Process-wide and unsynchronized, as all that the library shares: see `GPU::getMutex`.
class FACEZOO_EXPORT Listener {
 public:
  /// Listens from now on. An earlier listener hears nothing until this one is destroyed.
  Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  /// Listeners must be destroyed in the reverse order of their construction.
  virtual ~Listener();

  /// A line that the library would print on standard output or standard error. The failure that it
  /// reports is thrown next, unless it is a release that failed in a destructor.
  /// @param line without a newline, cut off after 1023 bytes, valid during the call
  virtual void onLine(const char* line) noexcept;

  /// A weight file has been read and parsed, and the network's layers are about to take their
  /// arrays from it. An exception thrown here leaves the network's constructor.
  /// @param root with payloads, valid during the call; arrays and maps inside a map are empty
  virtual void onDocument(const msgpack::v1::object& root);

 private:
  Listener* before_;
};

}  // namespace facezoo
