#include "client/jpeg_reader.h"

#include "client/failure.h"

#include <jerror.h>

#include <algorithm>

namespace facezoo {

namespace {

/// Each scan of a progressive file costs a pass over all of its pixels, however small the scan is.
constexpr std::size_t kMostScans = 500;
constexpr std::string_view kExif("Exif\0\0", 6);

/// Whether the bytes that libjpeg skipped in search of a marker held no pixels. Before the first
/// scan there are no pixels. Where damage makes the decoder lose count of them, some remain at the
/// end of a scan, where an encoder leaves nothing but padding of equal bytes.
bool skippedNoPixels(const jpeg_decompress_struct& state) {
  constexpr int kFirstRestart = 0xD0, kLastRestart = 0xD7;
  const int count = state.err->msg_parm.i[0], marker = state.err->msg_parm.i[1];
  if (state.input_scan_number == 0) return true;
  if (marker >= kFirstRestart && marker <= kLastRestart) return false;
  const JOCTET* const end = state.src->next_input_byte;
  return std::all_of(end - count, end, [end](JOCTET byte) { return byte == end[-1]; });
}

/// Whether every pixel is what the encoder meant, in spite of what libjpeg has to say.
bool leavesPixelsWhole(const jpeg_decompress_struct& state) {
  switch (state.err->msg_code) {
    case JWRN_ADOBE_XFORM:
    case JWRN_JFIF_MAJOR:
    case JWRN_NOT_SEQUENTIAL:  // parameters that only progressive files make use of
      return true;
    case JWRN_EXTRANEOUS_DATA:
      return skippedNoPixels(state);
    default:
      return false;
  }
}

}  // namespace

template <class Calls>
void JpegReader::attempt(const Calls& calls) {
  if (setjmp(failed_) != 0) throw Failure(message_);
  calls();
}

void JpegReader::fail(j_common_ptr state) {
  auto* reader = static_cast<JpegReader*>(state->client_data);
  state->err->format_message(state, reader->message_);
  std::longjmp(reader->failed_, 1);
}

void JpegReader::judgeWarning(j_common_ptr state, int level) {
  const auto* reader = static_cast<const JpegReader*>(state->client_data);
  if (level < 0 && !leavesPixelsWhole(reader->state_)) fail(state);
}

void JpegReader::limitScans(j_common_ptr state) {
  auto* reader = static_cast<JpegReader*>(state->client_data);
  const std::size_t most =
      std::min(kMostScans, reader->mostWork_ / (reader->width() * reader->height()));
  if (static_cast<std::size_t>(reader->state_.input_scan_number) <= most) return;
  std::snprintf(reader->message_, sizeof reader->message_,
                "expected at most %zu scans of %zu x %zu pixels, found more", most, reader->width(),
                reader->height());
  std::longjmp(reader->failed_, 1);
}

/// Takes the Exif segment from where it stands in the file: libjpeg would copy every segment, and
/// there may be many.
boolean JpegReader::findExif(j_decompress_ptr state) {
  auto* reader = static_cast<JpegReader*>(state->client_data);
  jpeg_source_mgr& source = *state->src;
  const std::string_view left(reinterpret_cast<const char*>(source.next_input_byte),
                              source.bytes_in_buffer);
  constexpr std::size_t kLength = 2;
  if (left.size() < kLength) ERREXIT(state, JERR_INPUT_EOF);
  const std::size_t length =
      std::size_t{source.next_input_byte[0]} << 8 | source.next_input_byte[1];
  if (length < kLength) ERREXIT(state, JERR_BAD_LENGTH);
  const std::string_view segment = left.substr(kLength, length - kLength);
  if (reader->exif_.empty() && segment.substr(0, kExif.size()) == kExif) reader->exif_ = segment;
  source.skip_input_data(state, static_cast<long>(length));
  return TRUE;
}

JpegReader::JpegReader(std::string_view file, std::size_t mostWork) : mostWork_(mostWork) {
  state_.err = jpeg_std_error(&errors_);
  state_.client_data = this;
  errors_.error_exit = fail;
  errors_.emit_message = judgeWarning;
  progress_.progress_monitor = limitScans;
  try {
    attempt([&] {
      jpeg_create_decompress(&state_);
      state_.progress = &progress_;
      jpeg_mem_src(&state_, reinterpret_cast<const unsigned char*>(file.data()), file.size());
      jpeg_set_marker_processor(&state_, JPEG_APP0 + 1, findExif);
      jpeg_read_header(&state_, TRUE);
    });
  } catch (const Failure&) {
    jpeg_destroy_decompress(&state_);
    throw;
  }
}

JpegReader::~JpegReader() { jpeg_destroy_decompress(&state_); }

bool JpegReader::hasInks() const {
  return state_.jpeg_color_space == JCS_CMYK || state_.jpeg_color_space == JCS_YCCK;
}

std::size_t JpegReader::workingMemory() {
  // No more rows of samples than these stand between the steps of decoding.
  constexpr std::size_t kRows = 48;
  const int components = state_.num_components;
  std::size_t bytes = kRows * components * width();
  if (jpeg_has_multiple_scans(&state_) == FALSE) return bytes;
  // All coefficients, as each scan only adds to them.
  const auto roundedUp = [](std::size_t count, int multiple) {
    return (count + multiple - 1) / multiple * multiple;
  };
  for (const auto* c = state_.comp_info; c != state_.comp_info + components; ++c) {
    bytes += roundedUp(c->width_in_blocks, c->h_samp_factor) *
             roundedUp(c->height_in_blocks, c->v_samp_factor) * sizeof(JBLOCK);
  }
  return bytes;
}

void JpegReader::decode(J_COLOR_SPACE space, unsigned char* pixels) {
  attempt([&] {
    state_.out_color_space = space;
    jpeg_start_decompress(&state_);
    const std::size_t stride = std::size_t(state_.output_width) * state_.output_components;
    while (state_.output_scanline < state_.output_height) {
      JSAMPROW row = pixels + state_.output_scanline * stride;
      jpeg_read_scanlines(&state_, &row, 1);
    }
    jpeg_finish_decompress(&state_);
  });
}

}  // namespace facezoo
