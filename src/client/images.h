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
  MemoryBudget::Share memory;  ///< that the pixels are part of
  std::unique_ptr<unsigned char[]> pixels;
};

/// A rectangle of a picture's pixels.
struct Crop {
  int x, y, width, height;
};

/// How the pixels of a file are to be understood.
struct PictureReading {
  bool orient = true;      ///< turn the picture as its Exif orientation says
  bool blueFirst = false;  ///< give a network blue, green, red, not red, green, blue
};

/// Decodes a PNG or JPEG file, turned grey if `channels` is 1.
/// @param orient whether to turn it as its Exif orientation says; what of that is broken is ignored
/// @param limits waits until so much of their memory is free
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
