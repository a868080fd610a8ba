#include "client/images.h"

#include "client/failure.h"
#include "client/files.h"
#include "client/jpeg_reader.h"
#include "client/orientation.h"
#include "client/png_reader.h"

#include <stb_image_resize.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

namespace facezoo {

namespace {

/// No byte of a file can stand for more: deflate makes up to 1032 bytes of one, each of 8 pixels of
/// one bit. A small file that claims more is refused before it gets the memory.
constexpr std::size_t kMostPixelsPerByte = std::size_t{8} * 1032;
/// How many scans the largest picture may have. Photographs have up to 18, but those with so many
/// take more memory for each pixel, and cannot be as large.
constexpr std::size_t kMostPasses = 16;

Picture makePicture(int width, int height, int channels) {
  const std::size_t bytes = std::size_t(width) * height * channels;
  std::unique_ptr<unsigned char[]> pixels(new unsigned char[bytes]);
  return {width, height, channels, bytes, {}, std::move(pixels)};
}

/// Refuses the size that a file claims before its pixels take memory or time.
void requireSize(std::string_view file, std::size_t width, std::size_t height,
                 const PictureLimits& limits) {
  const std::string claim = std::to_string(width) + " x " + std::to_string(height);
  if (width * height > limits.pixels) {
    throw Failure("expected at most " + std::to_string(limits.pixels) +
                  " pixels (--max-pixels raises the limit), found " + claim);
  }
  if (width * height / kMostPixelsPerByte > file.size())
    throw Failure("expected " + claim + " pixels, found no more than " +
                  std::to_string(file.size()) + " bytes");
}

/// Converts all pixels in place, from `from` channels to `to`, which may not be more.
template <class Convert>
void convertPixels(Picture& picture, int from, int to, const Convert& convert) {
  const std::size_t pixels = std::size_t(picture.width) * picture.height;
  for (std::size_t i = 0; i < pixels; ++i)
    convert(&picture.pixels[i * from], &picture.pixels[i * to]);
  picture.channels = to;
}

/// The luma of ITU-R BT.601, in 256ths.
void makeGrey(const unsigned char* rgb, unsigned char* grey) {
  *grey = static_cast<unsigned char>((77 * rgb[0] + 150 * rgb[1] + 29 * rgb[2]) >> 8);
}

Picture turnUpright(Picture picture, int tag) {
  if (tag == 1) return picture;
  const Orientation from(tag);
  const int width = picture.width, height = picture.height, channels = picture.channels;
  Picture upright =
      makePicture(from.transposed ? height : width, from.transposed ? width : height, channels);
  unsigned char* pixel = upright.pixels.get();
  for (int row = 0; row < upright.height; ++row) {
    for (int column = 0; column < upright.width; ++column, pixel += channels) {
      const int x = from.transposed ? row : column, y = from.transposed ? column : row;
      const std::size_t storedX = from.fromRight ? width - 1 - x : x;
      const std::size_t storedY = from.fromBottom ? height - 1 - y : y;
      std::copy_n(&picture.pixels[(storedY * width + storedX) * channels], channels, pixel);
    }
  }
  return upright;
}

/// Allocates the pixels of the picture in `file`, after `memory` has grown to all that decoding
/// takes.
/// @param turned whether there will be a copy of `channels` channels, after the decoder's end
/// @throws MemoryBudget::Busy
template <class Reader>
Picture allocate(std::string_view file, Reader& reader, int decodedChannels, bool turned,
                 int channels, MemoryBudget::Share& memory) {
  const std::size_t pixels = reader.width() * reader.height();
  memory.grow(file.size() + pixels * decodedChannels +
              std::max(reader.workingMemory(), turned ? pixels * channels : 0));
  return makePicture(static_cast<int>(reader.width()), static_cast<int>(reader.height()),
                     decodedChannels);
}

Picture decodePng(std::string_view file, int channels, bool orient, const PictureLimits& limits,
                  MemoryBudget::Share& memory) {
  PngReader reader(file);
  requireSize(file, reader.width(), reader.height(), limits);
  Picture picture = allocate(file, reader, 3, orient && reader.mayHaveExif(), channels, memory);
  reader.decode(picture.pixels.get());
  if (channels == 1) convertPixels(picture, 3, 1, makeGrey);
  return orient ? turnUpright(std::move(picture), orientationOf(reader.exif()))
                : std::move(picture);
}

Picture decodeJpeg(std::string_view file, int channels, bool orient, const PictureLimits& limits,
                   MemoryBudget::Share& memory) {
  JpegReader reader(file, limits.pixels * kMostPasses);
  requireSize(file, reader.width(), reader.height(), limits);
  const bool inks = reader.hasInks();
  const int tag = orient ? orientationOf(reader.exif()) : 1;
  Picture picture = allocate(file, reader, inks ? 4 : channels, tag != 1, channels, memory);
  reader.decode(inks ? JCS_CMYK : channels == 1 ? JCS_GRAYSCALE : JCS_RGB, picture.pixels.get());
  if (inks) {
    convertPixels(picture, 4, 3, [](const unsigned char* cmyk, unsigned char* rgb) {
      const int paper = cmyk[3];  // 255 where there is no ink, as in files of the usual programs
      for (int c = 0; c < 3; ++c)
        rgb[c] = static_cast<unsigned char>((cmyk[c] * paper + 127) / 255);
    });
    if (channels == 1) convertPixels(picture, 3, 1, makeGrey);
  }
  return turnUpright(std::move(picture), tag);
}

/// @throws MemoryBudget::Busy if `memory` cannot grow to what decoding takes
Picture readWithin(MemoryBudget::Share memory, const std::string& path, int channels, bool orient,
                   const PictureLimits& limits) {
  const FileBytes bytes = readFile(path);
  const std::string_view file(bytes.data.get(), bytes.size);
  if (file.empty()) throw Failure(path + ": expected a PNG or JPEG image, found an empty file");
  const bool jpeg = file.substr(0, 3) == "\xFF\xD8\xFF";
  if (!jpeg && file.substr(0, 8) != "\x89PNG\r\n\x1A\n")
    throw Failure(path + ": expected a PNG or JPEG image, found something else");
  try {
    Picture picture = jpeg ? decodeJpeg(file, channels, orient, limits, memory)
                           : decodePng(file, channels, orient, limits, memory);
    picture.memory = std::move(memory);
    return picture;
  } catch (const Failure& failure) {
    throw Failure(path + ": cannot be decoded as " + (jpeg ? "JPEG" : "PNG") + ": " +
                  failure.what());
  }
}

}  // namespace

Picture readPicture(const std::string& path, int channels, bool orient, PictureLimits& limits) {
  std::error_code unknown;
  std::size_t bytes = std::filesystem::file_size(path, unknown);
  if (unknown) bytes = 0;  // reading says why
  while (true) {
    try {
      return readWithin(limits.memory.reserve(path, bytes), path, channels, orient, limits);
    } catch (const MemoryBudget::Busy& busy) {
      bytes = busy.needed;
    }
  }
}

Crop centreCrop(const Picture& picture, int width, int height) {
  const auto fitting = [](int length, int across, int wanted, int wantedAcross) {
    const std::int64_t most = std::int64_t{across} * wanted / wantedAcross;
    return static_cast<int>(std::clamp<std::int64_t>(most, 1, length));
  };
  const int cropWidth = fitting(picture.width, picture.height, width, height);
  const int cropHeight = fitting(picture.height, picture.width, height, width);
  return {(picture.width - cropWidth) / 2, (picture.height - cropHeight) / 2, cropWidth,
          cropHeight};
}

Picture loadImage(const std::string& path, const InputGeometry& geometry,
                  const PictureReading& reading, PictureLimits& limits, unsigned char* pixels) {
  const auto [channels, width, height] = geometry;
  Picture picture = readPicture(path, channels, reading.orient, limits);
  const Crop crop = centreCrop(picture, width, height);
  const int stride = picture.width * channels;
  const unsigned char* corner =
      picture.pixels.get() + std::ptrdiff_t{crop.y} * stride + std::ptrdiff_t{crop.x} * channels;
  if (crop.width == width && crop.height == height) {
    const int row = width * channels;
    for (int y = 0; y < height; ++y)
      std::copy_n(corner + std::ptrdiff_t{y} * stride, row, pixels + std::ptrdiff_t{y} * row);
  } else if (stbir_resize_uint8(corner, crop.width, crop.height, stride, pixels, width, height, 0,
                                channels) == 0) {
    throw Failure(path + ": not enough memory to resample it");
  }
  const std::ptrdiff_t bytes = std::ptrdiff_t{channels} * width * height;
  if (reading.blueFirst)
    for (std::ptrdiff_t i = 0; i + 2 < bytes; i += 3) std::swap(pixels[i], pixels[i + 2]);
  return picture;
}

}  // namespace facezoo
