/// @file
#pragma once

#include "client/picture_limits.h"
#include "network_table.h"

#include <cstddef>
#include <memory>
#include <string>

namespace facezoo {

/// Interleaved 8-bit samples, rows from the top.
struct Picture {
  int width, height, channels;
  std::size_t bytes;           ///< of memory that the pixels take
  MemoryBudget::Share memory;  ///< of the budget, for the pixels
  std::unique_ptr<unsigned char[]> pixels;
};

/// A rectangle of a picture's pixels.
struct Crop {
  int x, y, width, height;
};

/// How the pixels of a file become those that a network sees.
struct PictureReading {
  bool orient = true;      ///< turn the picture as its Exif orientation says
  bool blueFirst = false;  ///< give a network blue, green, red, not red, green, blue
};

/// Decodes a PNG or JPEG file, turned grey if `channels` is 1.
/// @param orient whether to turn it as its Exif orientation says; broken metadata are ignored
/// @param limits their memory is waited for until enough of it is free
/// @throws Failure if the file is not a complete image, or one beyond the limits
Picture readPicture(const std::string& path, int channels, bool orient, PictureLimits& limits);

/// The largest part around the centre with the aspect ratio of `width` × `height`.
Crop centreCrop(const Picture& picture, int width, int height);

/// Decodes a PNG or JPEG file into height × width × channels interleaved bytes at `pixels`: its
/// centre crop, resampled unless it has that size already.
/// @return the whole picture
/// @throws Failure as `readPicture`
Picture loadImage(const std::string& path, const InputGeometry& geometry,
                  const PictureReading& reading, PictureLimits& limits, unsigned char* pixels);

}  // namespace facezoo
