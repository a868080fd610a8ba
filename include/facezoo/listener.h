/// @file
/// Lets a program report failures in its own words.
#pragma once

#include "export.h"
#include "message_pack.h"

namespace facezoo {

/// Hears the lines that the library would print, in place of the streams, and sees the weights that
/// it loads. An object of this class itself ignores both, which keeps the library quiet.
/// Process-wide and unsynchronized, as everything that the library shares: see `GPU::getMutex`.
class FACEZOO_EXPORT Listener {
 public:
  /// Listens from now on. An earlier listener hears nothing until this one is destroyed.
  Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  /// Listeners must be destroyed in the reverse order of their construction.
  virtual ~Listener();

  /// Called with a line that the library would print on standard output or standard error. The
  /// failure that it reports is thrown next, unless a release failed in a destructor.
  /// @param line without a newline, cut off after 1023 bytes, valid during the call
  virtual void onLine(const char* line) noexcept;

  /// Called when a weight file has been read and parsed, before the network's layers take their
  /// arrays from it. An exception thrown here leaves the network's constructor.
  /// @param root the document, valid during the call; strings and binaries have their bytes, but
  ///        arrays and maps inside the root have no elements
  virtual void onDocument(const msgpack::v1::object& root);

 private:
  Listener* before_;
};

}  // namespace facezoo
