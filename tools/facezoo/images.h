/// @file
#pragma once

#include "network_table.h"

#include <memory>
#include <string>

/// Interleaved 8-bit samples, rows from the top.
struct Picture {
  int width, height, channels;
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
/// @throws Failure if the file is not a complete image
Picture readPicture(const std::string& path, int channels, bool orient);

/// The largest part around the centre with the aspect ratio of `width` × `height`.
Crop centreCrop(const Picture& picture, int width, int height);

/// Decodes a PNG or JPEG file into height × width × channels interleaved bytes at `pixels`: its
/// centre crop, resampled unless it has that size already.
/// @throws Failure if the file is not a complete image
void loadImage(const std::string& path, const facezoo::InputGeometry& geometry,
               const PictureReading& reading, unsigned char* pixels);
