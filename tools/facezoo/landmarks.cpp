#include "landmarks.h"

#include "client/png_writer.h"

#include <algorithm>
#include <cmath>

using namespace facezoo;

namespace {

constexpr int kLandmarks = 68;
constexpr int kChannels = 3;

struct Point {
  float x, y;
};

/// Draws a green disc with a black rim, which can be seen on light and on dark pictures.
void drawDot(Picture& picture, Point centre, float radius) {
  constexpr unsigned char kFill[] = {0, 255, 0};
  const float rim = radius + 1;
  const int left = std::max(0, static_cast<int>(centre.x - rim));
  const int right = std::min(picture.width - 1, static_cast<int>(centre.x + rim));
  const int top = std::max(0, static_cast<int>(centre.y - rim));
  const int bottom = std::min(picture.height - 1, static_cast<int>(centre.y + rim));
  for (int y = top; y <= bottom; ++y) {
    for (int x = left; x <= right; ++x) {
      const float distance = std::hypot(x + 0.5F - centre.x, y + 0.5F - centre.y);
      if (distance > rim) continue;
      unsigned char* pixel =
          picture.pixels.get() + (std::size_t(y) * picture.width + std::size_t(x)) * kChannels;
      for (int c = 0; c < kChannels; ++c) pixel[c] = distance > radius ? 0 : kFill[c];
    }
  }
}

}  // namespace

int drawLandmarks(Picture& picture, const float* values, const LandmarkReading& reading,
                  const InputGeometry& geometry, const OutputPlace& drawing) {
  const Crop crop = centreCrop(picture, geometry.width, geometry.height);
  const float across = static_cast<float>(crop.width) / static_cast<float>(geometry.width);
  const float down = static_cast<float>(crop.height) / static_cast<float>(geometry.height);
  const float radius =
      std::max(1.0F, 0.006F * static_cast<float>(std::max(crop.width, crop.height)));
  int outside = 0;
  for (int i = 0; i < kLandmarks; ++i) {
    const float x = values[reading.pairs ? 2 * i : i];
    const float y = values[reading.pairs ? 2 * i + 1 : kLandmarks + i];
    const Point centre = {static_cast<float>(crop.x) + x * reading.scale * across,
                          static_cast<float>(crop.y) + y * reading.scale * down};
    const bool inside = centre.x >= 0 && centre.x < static_cast<float>(picture.width) &&
                        centre.y >= 0 && centre.y < static_cast<float>(picture.height);
    if (inside) {
      drawDot(picture, centre, radius);
    } else {
      ++outside;
    }
  }
  NewFile file(drawing);
  writePng(picture, drawing.name(), file.stream());
  file.keep();
  return outside;
}
