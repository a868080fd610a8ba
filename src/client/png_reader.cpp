#include "client/png_reader.h"

#include "client/failure.h"

#include <algorithm>
#include <cstdint>

namespace facezoo {

namespace {

constexpr std::size_t kSignature = 8;
/// A chunk's length and type, and its checksum.
constexpr std::size_t kHead = 8, kTail = 4;
/// As much as a JPEG file can hold.
constexpr std::size_t kMostExif = 0xFFFF;

void check(int status) {
  if (status != SPNG_OK) throw Failure(spng_strerror(status));
}

std::size_t lengthOf(std::string_view chunk) {
  std::size_t length = 0;
  for (const char c : chunk.substr(0, 4)) length = length << 8 | static_cast<std::uint8_t>(c);
  return length;
}

/// Whether the decoder has to see a chunk. A capital first letter of its type means that no decoder
/// may ignore it.
bool isNeeded(std::string_view chunk) {
  const std::string_view type = chunk.substr(4, 4);
  return (type[0] & 0x20) == 0 || (type == "eXIf" && lengthOf(chunk) <= kMostExif);
}

}  // namespace

PngReader::Chunks::Chunks(std::string_view file) : left_(file), wanted_(kSignature) {}

int PngReader::Chunks::read(char* to, std::size_t length) {
  while (length > 0) {
    while (wanted_ == 0) {
      if (left_.size() < kHead) return SPNG_IO_EOF;
      const std::size_t whole = kHead + lengthOf(left_) + kTail;
      if (isNeeded(left_)) {
        wanted_ = whole;
      } else {
        left_.remove_prefix(std::min(whole, left_.size()));
      }
    }
    const std::size_t part = left_.copy(to, std::min(length, wanted_));
    if (part == 0) return SPNG_IO_EOF;
    left_.remove_prefix(part);
    wanted_ -= part;
    to += part;
    length -= part;
  }
  return SPNG_OK;
}

PngReader::PngReader(std::string_view file)
    : file_(file), chunks_(file), decoder_(spng_ctx_new(0), spng_ctx_free) {
  const auto read = [](spng_ctx*, void* chunks, void* to, std::size_t length) {
    return static_cast<Chunks*>(chunks)->read(static_cast<char*>(to), length);
  };
  check(spng_set_png_stream(decoder_.get(), read, &chunks_));
  check(spng_get_ihdr(decoder_.get(), &header_));
}

std::size_t PngReader::workingMemory() const {
  // Two rows as they are stored, of samples of up to 64 bits a pixel, and one as it will be.
  constexpr std::size_t kBytes = 2 * 8 + 3;
  return kBytes * header_.width;
}

bool PngReader::mayHaveExif() const { return file_.find("eXIf") != std::string_view::npos; }

void PngReader::decode(unsigned char* pixels) {
  check(spng_decode_image(decoder_.get(), pixels, 3 * width() * height(), SPNG_FMT_RGB8, 0));
}

std::string PngReader::exif() {
  spng_exif exif = {};
  if (spng_get_exif(decoder_.get(), &exif) != SPNG_OK) return {};
  return std::string("Exif\0\0", 6).append(exif.data, exif.length);
}

}  // namespace facezoo
