#include "images.h"

#include "failure.h"
#include "files.h"

#include <stb_image.h>
#include <stb_image_resize.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t kMostPixels = std::size_t{1} << 28;

/// Reads big-endian numbers out of a file.
std::size_t number(std::string_view file, std::size_t at, int bytes) {
  std::size_t value = 0;
  for (int i = 0; i < bytes; ++i) value = value << 8 | static_cast<unsigned char>(file[at + i]);
  return value;
}

bool pngReachesItsEnd(std::string_view file) {
  constexpr std::size_t kFrame = 12;      // length, type and checksum of a chunk
  constexpr std::size_t kHeaderEnd = 33;  // of the signature and the header chunk
  for (std::size_t at = kHeaderEnd; at + kFrame <= file.size(); at += kFrame + number(file, at, 4))
    if (file.substr(at + 4, 4) == "IEND") return true;
  return false;
}

// The decoder fills up a JPEG that breaks off with grey and reports success.
bool jpegReachesItsEnd(std::string_view file) {
  constexpr std::size_t kEndOfImage = 0xFFD9;
  std::size_t at = 2;
  while (at + 2 <= file.size()) {
    const std::size_t marker = number(file, at, 2);
    if (marker == kEndOfImage) return true;
    // Inside a scan, FF00 is a data byte and FFD0 to FFD7 restart the decoder; FFFF is padding.
    const bool inScan = marker <= 0xFF00 || marker == 0xFFFF || (marker & ~7U) == 0xFFD0;
    if (!inScan && at + 4 > file.size()) return false;
    at += inScan ? 1 : 2 + number(file, at + 2, 2);
  }
  return false;
}

}  // namespace

Picture readPicture(const std::string& path, int channels) {
  const facezoo::FileBytes bytes = readFile(path);
  const std::string_view file(bytes.data.get(), bytes.size);
  if (file.empty()) throw Failure(path + ": expected a PNG or JPEG image, found an empty file");
  const bool jpeg = file.substr(0, 3) == "\xFF\xD8\xFF";
  if (!jpeg && file.substr(0, 8) != "\x89PNG\r\n\x1A\n")
    throw Failure(path + ": expected a PNG or JPEG image, found something else");

  const auto refuse = [&](const std::string& why) {
    throw Failure(path + ": cannot be decoded as " + (jpeg ? "JPEG" : "PNG") + ": " + why);
  };
  if (file.size() > std::numeric_limits<int>::max()) refuse("larger than 2 GiB");
  if (!(jpeg ? jpegReachesItsEnd(file) : pngReachesItsEnd(file)))
    refuse("the file ends inside the image");
  const auto* encoded = reinterpret_cast<const unsigned char*>(file.data());
  const int size = static_cast<int>(file.size());
  int foundWidth = 0;
  int foundHeight = 0;
  int foundChannels = 0;
  const bool known =
      stbi_info_from_memory(encoded, size, &foundWidth, &foundHeight, &foundChannels) != 0;
  // The decoder knows no PNG that is too large for it, so its size is read here.
  const std::size_t wide = jpeg ? foundWidth : number(file, 16, 4);
  const std::size_t high = jpeg ? foundHeight : number(file, 20, 4);
  if (wide * high > kMostPixels) {
    refuse("expected at most " + std::to_string(kMostPixels) + " pixels, found " +
           std::to_string(wide) + " x " + std::to_string(high));
  }
  if (!known) refuse("its header is damaged");
  Picture picture{0, 0, channels, {nullptr, stbi_image_free}};
  picture.pixels.reset(stbi_load_from_memory(encoded, size, &picture.width, &picture.height,
                                             &foundChannels, channels));
  if (!picture.pixels) refuse(stbi_failure_reason());
  return picture;
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

void loadImage(const std::string& path, int channels, int width, int height,
               unsigned char* pixels) {
  const Picture picture = readPicture(path, channels);
  const Crop crop = centreCrop(picture, width, height);
  const int stride = picture.width * channels;
  const stbi_uc* corner =
      picture.pixels.get() + std::ptrdiff_t{crop.y} * stride + std::ptrdiff_t{crop.x} * channels;
  if (crop.width == width && crop.height == height) {
    const int row = width * channels;
    for (int y = 0; y < height; ++y)
      std::copy_n(corner + std::ptrdiff_t{y} * stride, row, pixels + std::ptrdiff_t{y} * row);
    return;
  }
  if (stbir_resize_uint8(corner, crop.width, crop.height, stride, pixels, width, height, 0,
                         channels) == 0)
    throw Failure(path + ": not enough memory to resample it");
}
