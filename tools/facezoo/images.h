/// @file
#pragma once

#include <string>

/// Decodes a PNG or JPEG file into height × width × channels interleaved bytes at `pixels`: turned
/// grey if `channels` is 1, cropped around its centre to the aspect ratio, then resampled.
/// @throws Failure if the file is not a complete image
void loadImage(const std::string& path, int channels, int width, int height, unsigned char* pixels);
