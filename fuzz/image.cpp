// Decodes an image file of any bytes to the upright pixels that a network takes, grey or in colour.
#include "client/failure.h"
#include "client/images.h"
#include "memory_file.h"

using namespace facezoo;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static facezoo::fuzz::MemoryFile file;
  static PictureLimits limits;
  constexpr int kEdge = 8;
  unsigned char pixels[kEdge * kEdge * 3];
  const int channels = size % 2 == 0 ? 1 : 3;
  try {
    loadImage(file.fill(data, size), {channels, kEdge, kEdge}, {}, limits, pixels);
  } catch (const Failure&) {  // as documented
  }
  return 0;
}
