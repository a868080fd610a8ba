/// @file
#pragma once

#include <cstdio>  // which jpeglib.h takes for granted

#include <jpeglib.h>

#include <csetjmp>
#include <cstddef>
#include <string_view>

namespace facezoo {

/// Decodes a JPEG file, and refuses one of which pixels are missing, which libjpeg by itself makes
/// grey. Faults that harm no pixel are ignored.
class JpegReader {
 public:
  /// Reads what stands before the first scan.
  /// @param file has to outlive the reader
  /// @param mostWork how many pixels all scans together may go over
  /// @throws Failure
  JpegReader(std::string_view file, std::size_t mostWork);
  JpegReader(const JpegReader&) = delete;
  JpegReader& operator=(const JpegReader&) = delete;
  ~JpegReader();

  std::size_t width() const { return state_.image_width; }
  std::size_t height() const { return state_.image_height; }
  /// Whether the samples are of four inks, which decode as JCS_CMYK only.
  bool hasInks() const;
  /// The Exif segment from its identifier on; empty if there is none.
  std::string_view exif() const { return exif_; }
  /// How many bytes the decoder allocates beside the pixels.
  std::size_t workingMemory();

  /// Decodes to width × height interleaved pixels of `space`. To be called once. @throws Failure
  void decode(J_COLOR_SPACE space, unsigned char* pixels);

 private:
  /// Makes calls of libjpeg, which leaves a call that fails by longjmp: between it and here there
  /// may be no object with a destructor. @throws Failure
  template <class Calls>
  void attempt(const Calls& calls);
  [[noreturn]] static void fail(j_common_ptr state);
  static void judgeWarning(j_common_ptr state, int level);
  static void limitScans(j_common_ptr state);
  static boolean findExif(j_decompress_ptr state);

  jpeg_decompress_struct state_ = {};
  jpeg_error_mgr errors_ = {};
  jpeg_progress_mgr progress_ = {};
  std::string_view exif_;
  const std::size_t mostWork_;
  std::jmp_buf failed_ = {};
  char message_[JMSG_LENGTH_MAX] = {};
};

}  // namespace facezoo
