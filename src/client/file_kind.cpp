#include "client/file_kind.h"

#include "client/failure.h"
#include "client/weight_document.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>

namespace facezoo {

namespace fs = std::filesystem;

namespace {

/// The parts of a file that its kind is recognised by. The end is one, as it holds the directory of
/// a zip archive.
struct Sample {
  std::string head, tail;
  std::uint64_t size;

  bool begins(std::string_view signature) const { return head.rfind(signature, 0) == 0; }
  bool names(const char* entry) const {
    return head.find(entry) != std::string::npos || tail.find(entry) != std::string::npos;
  }
  unsigned char byte(std::size_t i) const {
    return i < head.size() ? static_cast<unsigned char>(head[i]) : 0;
  }
};

bool isZip(const Sample& file) { return file.begins("PK\x03\x04"); }

/// Begins with the length of a header, which is a JSON object.
bool isSafetensorsFile(const Sample& file) {
  std::uint64_t length = 0;
  if (file.byte(sizeof length) != '{') return false;
  std::memcpy(&length, file.head.data(), sizeof length);
  return length <= file.size - sizeof length;
}

/// Begins with a map whose first key is a string and whose first value is a string or bytes: other
/// kinds of files may begin like an empty map or a map of numbers.
bool isWeightFile(const Sample& file) {
  const unsigned char first = file.byte(0);
  std::size_t at = first == 0xDE ? 3 : first == 0xDF ? 5 : 1;
  if ((first & 0xF0) != 0x80 && at == 1) return false;
  std::size_t length = file.byte(at) & 0x1FU;
  if (file.byte(at) == 0xD9) {
    length = file.byte(++at);
  } else if ((file.byte(at) & 0xE0) != 0xA0) {
    return false;
  }
  const unsigned char value = file.byte(at + 1 + length);
  return (value & 0xE0) == 0xA0 || (value >= 0xC4 && value <= 0xC6) ||
         (value >= 0xD9 && value <= 0xDB);
}

/// A protocol buffer whose first field is the version of the format and whose seventh is a graph.
/// Fields are written in the order of their numbers, and those between are short.
bool isOnnx(const Sample& file) {
  constexpr unsigned char kVersion = 0x08, kGraph = 0x3A;
  constexpr int kBytes = 2;  // the kind of a field that begins with its length
  std::size_t at = 0;
  const auto readNumber = [&] {
    std::uint64_t number = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      const std::uint64_t bits = file.byte(at++);
      number |= (bits & 0x7FU) << shift;
      if (bits < 0x80) break;
    }
    return number;
  };
  if (file.byte(at++) != kVersion) return false;
  readNumber();
  while (at < file.head.size()) {
    const unsigned char field = file.byte(at++);
    const std::uint64_t value = readNumber();
    if (field == kGraph) return value > 0 && value <= file.size - at;
    if (field <= kVersion || field > kGraph) return false;
    if ((field & 7) == kBytes) at += std::min<std::uint64_t>(value, file.head.size());
  }
  return false;
}

struct FileKind {
  bool (*is)(const Sample&);
  const char* name;
  const char* help;  ///< NET and FILE stand for the network and the file
};

constexpr const char* kFromTorch =
    R"(`safetensors.torch.save_file(model.state_dict(), "model.safetensors")` writes what )"
    "`facezoo weights import` takes";
constexpr const char* kFromArrays =
    R"(`safetensors.numpy.save_file({name: array, ...}, "model.safetensors")` writes what )"
    "`facezoo weights import` takes, filters as [out, in, row, column]";
constexpr const char* kFromOnnx =
    "`safetensors.numpy.save_file({t.name: onnx.numpy_helper.to_array(t) for t in "
    R"(onnx.load("FILE").graph.initializer}, "model.safetensors")` writes what )"
    "`facezoo weights import` takes";
constexpr const char* kUnpack = "what is packed in it may be what is wanted";

/// A file is of the first kind that fits.
constexpr FileKind kinds[] = {
    {isSafetensorsFile, "a safetensors file",
     "`facezoo weights import NET FILE -o weights.msgpack` converts it"},
    {isWeightFile, "a weight file", "it needs no conversion"},
    {[](const Sample& file) { return isZip(file) && file.names("data.pkl"); }, "a PyTorch file",
     kFromTorch},
    {[](const Sample& file) { return isZip(file) && file.names("model.weights.h5"); },
     "a Keras file", kFromArrays},
    {[](const Sample& file) { return isZip(file) && file.names(".npy"); }, "NumPy's arrays",
     kFromArrays},
    {isZip, "a zip archive", kUnpack},
    {[](const Sample& file) { return file.begins("\x1F\x8B"); }, "a gzip file", kUnpack},
    {[](const Sample& file) {
       return file.byte(0) == 0x80 && file.byte(1) >= 2 && file.byte(1) <= 5;
     },
     "a Python pickle, as older PyTorch files are", kFromTorch},
    {isOnnx, "an ONNX file", kFromOnnx},
    {[](const Sample& file) { return file.begins("\x93NUMPY"); }, "a NumPy array", kFromArrays},
    {[](const Sample& file) { return file.begins("\x89HDF\r\n\x1A\n"); },
     "an HDF5 file, as Keras writes it", kFromArrays}};

/// The kind of a file; null if it is of none, or cannot be read.
const FileKind* kindOf(const std::string& path) {
  constexpr std::size_t kMost = 1 << 16;
  std::error_code error;
  if (!fs::is_regular_file(path, error)) return nullptr;
  Sample sample = {{}, {}, fs::file_size(path, error)};
  if (error) return nullptr;
  std::ifstream file(path, std::ios::binary);
  const std::uint64_t length = std::min<std::uint64_t>(sample.size, kMost);
  for (std::string* part : {&sample.head, &sample.tail}) {
    part->resize(length);
    file.seekg(static_cast<std::streamoff>(part == &sample.head ? 0 : sample.size - length));
    if (!file.read(part->data(), static_cast<std::streamsize>(length))) return nullptr;
  }
  const auto* const found =
      std::find_if(std::begin(kinds), std::end(kinds), [&](auto& kind) { return kind.is(sample); });
  return found == std::end(kinds) ? nullptr : found;
}

void replace(std::string& text, std::string_view placeholder, const std::string& value) {
  if (const std::size_t at = text.find(placeholder); at != std::string::npos)
    text.replace(at, placeholder.size(), value);
}

void expect(bool (*wanted)(const Sample&), const char* what, const std::string& path,
            const std::string& network) {
  const FileKind* const kind = kindOf(path);
  if (kind == nullptr || kind->is == wanted) return;
  std::string help = kind->help;
  replace(help, "NET", network);
  replace(help, "FILE", path);
  throw Failure(path + ": expected " + what + ", found " + kind->name + "; " + help);
}

}  // namespace

bool isSafetensors(const std::string& path) {
  const FileKind* const kind = kindOf(path);
  return kind != nullptr && kind->is == isSafetensorsFile;
}

void expectWeightFile(const std::string& path, const std::string& network) {
  expect(isWeightFile, "a weight file (a MessagePack map)", path, network);
}

void expectSafetensors(const std::string& path) {
  expect(isSafetensorsFile, "a safetensors file", path, "NET");
}

std::string adviceOnPacking(const WeightDocument& document) {
  std::size_t entries = 0;
  for (std::size_t i = 0; i < document.size(); ++i)
    if (std::string_view(document[i].type) == "bin") ++entries;
  if (entries == 0) return {};
  return "; " + std::to_string(entries) +
         " arrays are of type bin, and networks take str: `msgpack.packb(..., use_bin_type=False)` "
         "writes names and arrays so";
}

}  // namespace facezoo
