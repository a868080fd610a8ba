#include "client/picture_limits.h"

#include "client/failure.h"

#include <algorithm>
#include <utility>

namespace facezoo {

MemoryBudget::Share::Share(Share&& other) noexcept
    : budget_(std::exchange(other.budget_, nullptr)), bytes_(other.bytes_) {}

MemoryBudget::Share::~Share() {
  if (budget_ == nullptr) return;
  {
    const std::lock_guard lock(budget_->mutex_);
    budget_->free_ += bytes_;
  }
  budget_->changed_.notify_all();
}

MemoryBudget::Share& MemoryBudget::Share::operator=(Share&& other) noexcept {
  std::swap(budget_, other.budget_);
  std::swap(bytes_, other.bytes_);
  return *this;
}

void MemoryBudget::Share::grow(std::size_t bytes) {
  if (bytes <= bytes_) return;
  const std::lock_guard lock(budget_->mutex_);
  if (bytes - bytes_ > budget_->free_) throw Busy{bytes};
  budget_->free_ -= bytes - bytes_;
  bytes_ = bytes;
}

MemoryBudget::Share MemoryBudget::reserve(const std::string& path, std::size_t bytes) {
  if (bytes > total_) {
    const auto mebibytes = [](std::size_t size) {
      constexpr std::size_t kMebibyte = std::size_t{1} << 20;
      return std::to_string((size + kMebibyte - 1) / kMebibyte) + " MiB";
    };
    throw Failure(path + ": expected to take at most " + mebibytes(total_) +
                  " of memory (--max-pixels raises the limit), found " + mebibytes(bytes));
  }
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return bytes <= free_; });
  free_ -= bytes;
  return {*this, bytes};
}

std::optional<MemoryBudget::Share> MemoryBudget::tryReserve(std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  if (bytes > free_) return {};
  free_ -= bytes;
  return Share(*this, bytes);
}

PictureLimits::PictureLimits(int mostPixels)
    : pixels(mostPixels),
      memory(std::max(pixels * kBytesPerPixel, kLeastBytes)),
      kept(memory.total()) {}

}  // namespace facezoo
