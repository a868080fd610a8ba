#include "client/png_writer.h"

#include "client/failure.h"

#include <spng.h>

#include <cstdint>
#include <exception>
#include <memory>

namespace facezoo {

namespace {

constexpr int kChannels = 3;

/// Where the encoder's bytes go. No exception may pass through the encoder, which is written in C.
struct Output {
  std::ostream& stream;
  std::exception_ptr failure;
};

int write(spng_ctx* /*encoder*/, void* to, void* bytes, std::size_t count) {
  auto& [stream, failure] = *static_cast<Output*>(to);
  try {
    stream.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(count));
    return SPNG_OK;
  } catch (...) {
    failure = std::current_exception();
    return SPNG_IO_ERROR;
  }
}

}  // namespace

void writePng(const Picture& picture, const std::string& name, std::ostream& out) {
  Output output = {out, nullptr};
  const auto check = [&](int status) {
    if (output.failure != nullptr) std::rethrow_exception(output.failure);
    if (status != SPNG_OK && status != SPNG_EOI)
      throw Failure(name + ": cannot be encoded as PNG: " + spng_strerror(status));
  };
  const std::unique_ptr<spng_ctx, void (*)(spng_ctx*)> encoder(spng_ctx_new(SPNG_CTX_ENCODER),
                                                               spng_ctx_free);
  if (encoder == nullptr) check(SPNG_EMEM);
  check(spng_set_png_stream(encoder.get(), write, &output));
  spng_ihdr header = {};
  header.width = static_cast<std::uint32_t>(picture.width);
  header.height = static_cast<std::uint32_t>(picture.height);
  header.bit_depth = 8;
  header.color_type = SPNG_COLOR_TYPE_TRUECOLOR;
  check(spng_set_ihdr(encoder.get(), &header));
  // Higher levels take several times as long to make photographs smaller by a tenth.
  check(spng_set_option(encoder.get(), SPNG_IMG_COMPRESSION_LEVEL, 2));
  check(spng_encode_image(encoder.get(), nullptr, 0, SPNG_FMT_PNG,
                          SPNG_ENCODE_PROGRESSIVE | SPNG_ENCODE_FINALIZE));
  const std::size_t stride = std::size_t(picture.width) * kChannels;
  for (int y = 0; y < picture.height; ++y)
    check(spng_encode_row(encoder.get(), &picture.pixels[y * stride], stride));
}

std::size_t pngWritingMemory(const Picture& picture) {
  constexpr std::size_t kRows = 3;  // as it is, the one before, and what of it is compressed
  return kRows * kChannels * picture.width;
}

}  // namespace facezoo
