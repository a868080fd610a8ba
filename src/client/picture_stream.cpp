#include "client/picture_stream.h"

#include "client/png_writer.h"

#include <utility>

namespace facezoo {

PictureStream::PictureStream(const std::vector<std::string>& paths, const InputGeometry& geometry,
                             const PictureReading& reading, PictureLimits& limits, int threads,
                             std::size_t ahead, bool keepsWhole)
    : paths_(paths),
      geometry_(geometry),
      reading_(reading),
      limits_(limits),
      keepsWhole_(keepsWhole),
      ready_(ahead) {
  workers_.reserve(threads);
  try {
    for (int i = 0; i < threads; ++i) workers_.emplace_back([this] { work(); });
  } catch (const std::exception&) {
    return;  // the threads that could be started do all the work
  }
}

PictureStream::~PictureStream() { stop(); }

PictureStream::Decoded PictureStream::take() {
  if (workers_.empty()) return decode(paths_[taken_++]);
  std::unique_lock lock(mutex_);
  Slot& slot = ready_[taken_ % ready_.size()];
  changed_.wait(lock, [&] { return slot.isFull; });
  Decoded decoded = std::move(slot.decoded);
  slot.isFull = false;
  ++taken_;
  changed_.notify_all();
  return decoded;
}

void PictureStream::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] {
      return stopped_ || claimed_ == paths_.size() || claimed_ < taken_ + ready_.size();
    });
    if (stopped_ || claimed_ == paths_.size()) return;
    const std::size_t claim = claimed_++;
    lock.unlock();
    Decoded decoded = decode(paths_[claim]);
    lock.lock();
    ready_[claim % ready_.size()] = {true, std::move(decoded)};
    changed_.notify_all();
  }
}

void PictureStream::stop() {
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
  }
  changed_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

PictureStream::Decoded PictureStream::decode(const std::string& path) const noexcept {
  Decoded decoded;
  try {
    decoded.pixels.resize(std::size_t(geometry_.channels) * geometry_.width * geometry_.height);
    Picture whole = loadImage(path, geometry_, reading_, limits_, decoded.pixels.data());
    if (!keepsWhole_) return decoded;
    // It is kept to be drawn into and written.
    if (auto kept = limits_.kept.tryReserve(whole.bytes + pngWritingMemory(whole))) {
      whole.memory = std::move(*kept);
      decoded.whole = std::move(whole);
    }
  } catch (...) {
    decoded.fault = std::current_exception();
  }
  return decoded;
}

}  // namespace facezoo
