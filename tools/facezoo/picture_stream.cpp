#include "picture_stream.h"

#include "failure.h"

#include <utility>

PictureStream::PictureStream(const std::vector<std::string>& paths,
                             const facezoo::InputGeometry& geometry, const PictureReading& reading,
                             PictureLimits& limits, int threads, std::size_t ahead)
    : paths_(paths), geometry_(geometry), reading_(reading), limits_(limits), ahead_(ahead) {
  try {
    for (int i = 0; i < threads; ++i) workers_.emplace_back([this] { work(); });
  } catch (...) {
    stop();
    throw;
  }
}

PictureStream::~PictureStream() { stop(); }

PictureStream::Decoded PictureStream::take() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return ready_.count(taken_) > 0; });
  Decoded decoded = std::move(ready_.extract(taken_++).mapped());
  changed_.notify_all();
  return decoded;
}

void PictureStream::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] {
      return stopped_ || claimed_ == paths_.size() || claimed_ < taken_ + ahead_;
    });
    if (stopped_ || claimed_ == paths_.size()) return;
    const std::size_t claim = claimed_++;
    lock.unlock();
    Decoded decoded = decode(paths_[claim]);
    lock.lock();
    ready_.emplace(claim, std::move(decoded));
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

PictureStream::Decoded PictureStream::decode(const std::string& path) const {
  Decoded decoded;
  try {
    decoded.pixels.resize(std::size_t(geometry_.channels) * geometry_.width * geometry_.height);
    loadImage(path, geometry_, reading_, limits_, decoded.pixels.data());
  } catch (const Failure& failure) {
    decoded.fault = failure.what();
  } catch (...) {
    decoded.fault = path + ": " + describeException();
  }
  return decoded;
}
