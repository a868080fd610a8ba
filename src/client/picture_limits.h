/// @file
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>

namespace facezoo {

/// Memory that threads share, counted in bytes before it is allocated.
class MemoryBudget {
 public:
  explicit MemoryBudget(std::size_t bytes) : total_(bytes), free_(bytes) {}

  std::size_t total() const { return total_; }

  /// Thrown where a share cannot grow: its holder has to give it back and to reserve `needed` bytes
  /// at once.
  struct Busy {
    std::size_t needed;
  };

  /// Part of the budget, which its destructor gives back.
  class Share {
   public:
    Share() = default;
    Share(Share&& other) noexcept;
    Share& operator=(Share&& other) noexcept;
    ~Share();

    /// Enlarges the share to `bytes`. It does not wait, since holders of shares could wait for each
    /// other forever.
    /// @throws Busy if so much is not free now
    void grow(std::size_t bytes);

   private:
    friend MemoryBudget;
    Share(MemoryBudget& budget, std::size_t bytes) : budget_(&budget), bytes_(bytes) {}

    MemoryBudget* budget_ = nullptr;
    std::size_t bytes_ = 0;
  };

  /// Waits until so much is free. @throws Failure about `path` if it never will be
  Share reserve(const std::string& path, std::size_t bytes);

  /// Does not wait: no value if so much is not free now.
  std::optional<Share> tryReserve(std::size_t bytes);

 private:
  const std::size_t total_;
  std::size_t free_;
  std::mutex mutex_;
  std::condition_variable changed_;
};

/// What the pictures of a run may take, on all its threads together.
struct PictureLimits {
  /// As many as the largest pictures of cameras have, which are those of telephones.
  static constexpr int kDefaultPixels = 200'000'000;
  /// Up to here the length of a row in bytes is an `int`, as resampling needs it.
  static constexpr int kLargestPixels = 1 << 29;
  /// Decoding takes 1 to 4 bytes for the samples of a pixel, as much again where the picture is
  /// turned, and of a JPEG file with several scans the coefficients: 2 to 8 bytes. Of a photograph
  /// with its colours at half the resolution, all of it is 6.
  static constexpr std::size_t kBytesPerPixel = 8;
  /// The budget's minimum: files, for example, do not shrink with the pixels.
  static constexpr std::size_t kLeastBytes = std::size_t{64} << 20;

  /// @param mostPixels of a picture
  explicit PictureLimits(int mostPixels = kDefaultPixels);

  const std::size_t pixels;
  MemoryBudget memory;  ///< for what is being decoded
  /// As much again for pictures that are kept after that. It is a budget of its own, and nobody
  /// waits for it: decoding could not go on while pictures that wait for more held its memory.
  MemoryBudget kept;
};

}  // namespace facezoo
