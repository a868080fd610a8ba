/// @file
#pragma once

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

/// Decodes a PNG or JPEG file, turned grey if `channels` is 1.
/// @throws Failure if the file is not a complete image
Picture readPicture(const std::string& path, int channels);

/// The largest part around the centre with the aspect ratio of `width` × `height`.
Crop centreCrop(const Picture& picture, int width, int height);

/// Decodes a PNG or JPEG file into height × width × channels interleaved bytes at `pixels`: its
/// centre crop, resampled unless it has that size already.
/// @throws Failure if the file is not a complete image
void loadImage(const std::string& path, int channels, int width, int height, unsigned char* pixels);
