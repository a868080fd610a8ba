/// @file
/// The safetensors format: 8 bytes of header length, little-endian; a header in JSON that says of
/// every tensor its type, shape and place; the tensors' bytes.
#pragma once

#include "file_bytes.h"

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace facezoo {

/// A tensor in a file, unlike the library's `Tensor`, which is device memory.
struct StoredTensor {
  std::string name;
  std::string type;  ///< as the format names it: F32, BF16, I64, ...
  std::vector<std::size_t> shape;
  std::string_view data;  ///< part of the file's bytes; its size fits type and shape

  std::size_t elements() const;
};

/// All tensors, in the order of their data, which they cover without gap or overlap.
/// @throws Failure that does not name the file
std::vector<StoredTensor> parseSafetensors(std::string_view bytes);

/// A file and its tensors.
class TensorFile {
 public:
  /// @throws Failure if the file is not what `parseSafetensors` takes
  explicit TensorFile(const std::string& path);

  /// In the order of their data.
  const std::vector<StoredTensor>& tensors() const { return tensors_; }

 private:
  FileBytes bytes_;
  std::vector<StoredTensor> tensors_;
};

/// Writes a file of `tensors` whose metadata say what network they are for.
/// @throws Failure if a name is not UTF-8
void writeSafetensors(const std::vector<StoredTensor>& tensors, const std::string& network,
                      std::ostream& out);

/// Whether `readFloats` knows the type: F32, F16, BF16.
bool holdsFloats(const StoredTensor& tensor);

/// Gives the values to `take` as 32-bit floats, which represent all of them exactly: piece by
/// piece, so that no tensor is widened as a whole.
void readFloats(const StoredTensor& tensor,
                const std::function<void(std::string_view floats)>& take);

}  // namespace facezoo
