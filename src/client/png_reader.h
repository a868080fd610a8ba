/// @file
#pragma once

#include <spng.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace facezoo {

/// Decodes a PNG file. Of its chunks the decoder sees only those that pixels and the way they are
/// turned come from: it would inflate texts and colour profiles, however large they become, and
/// count them, only for them to be thrown away.
class PngReader {
 public:
  /// Reads the header.
  /// @param file has to outlive the reader
  /// @throws Failure
  explicit PngReader(std::string_view file);
  PngReader(const PngReader&) = delete;
  PngReader& operator=(const PngReader&) = delete;
  ~PngReader() = default;

  std::size_t width() const { return header_.width; }
  std::size_t height() const { return header_.height; }
  /// How many bytes the decoder allocates beside the pixels.
  std::size_t workingMemory() const;
  /// False if the picture certainly has no Exif metadata.
  bool mayHaveExif() const;

  /// Decodes to width × height pixels of red, green and blue. To be called once. @throws Failure
  void decode(unsigned char* pixels);
  /// The Exif metadata as it stands in a JPEG file; empty if there is none, or if it is broken. To
  /// be called after `decode`, as it may follow the pixels.
  std::string exif();

 private:
  /// Reads the file, but for the chunks that are not needed.
  class Chunks {
   public:
    explicit Chunks(std::string_view file);
    /// Copies the next `length` bytes. @return a status of the decoder
    int read(char* to, std::size_t length);

   private:
    std::string_view left_;
    std::size_t wanted_;  ///< bytes left of the chunk that is being read
  };

  std::string_view file_;
  Chunks chunks_;
  std::unique_ptr<spng_ctx, void (*)(spng_ctx*)> decoder_;
  spng_ihdr header_ = {};
};

}  // namespace facezoo
