/// @file
#pragma once

#include "client/images.h"
#include "network_table.h"

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace facezoo {

/// Pictures fitted to a network, decoded ahead on threads of its own. If no thread can be started,
/// `take` decodes.
class PictureStream {
 public:
  struct Decoded {
    std::vector<unsigned char> pixels;
    std::optional<Picture> whole;  ///< if it was to be kept, and the limits left room for it
    std::exception_ptr fault;      ///< why there are no pixels; null if there are
  };

  /// @param limits what all decoding may take, on these threads and elsewhere
  /// @param ahead how many pictures may wait to be taken; bounds the memory
  /// @param keepsWhole whether to hand out the whole pictures as well
  PictureStream(const std::vector<std::string>& paths, const InputGeometry& geometry,
                const PictureReading& reading, PictureLimits& limits, int threads,
                std::size_t ahead, bool keepsWhole);
  PictureStream(const PictureStream&) = delete;
  PictureStream& operator=(const PictureStream&) = delete;
  ~PictureStream();

  /// The next picture in the order of the paths; to be called once for each.
  Decoded take();

 private:
  struct Slot {
    bool isFull = false;
    Decoded decoded;
  };

  void work();
  void stop();
  Decoded decode(const std::string& path) const noexcept;

  const std::vector<std::string>& paths_;
  const InputGeometry geometry_;
  const PictureReading reading_;
  PictureLimits& limits_;
  const bool keepsWhole_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t claimed_ = 0, taken_ = 0;
  bool stopped_ = false;
  std::vector<Slot> ready_;  ///< a ring, so that handing over allocates nothing
  std::vector<std::thread> workers_;
};

}  // namespace facezoo
