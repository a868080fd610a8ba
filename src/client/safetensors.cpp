#include "client/safetensors.h"

#include "client/failure.h"
#include "client/files.h"
#include "client/strict_json.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <utility>

namespace facezoo {

namespace {

using nlohmann::json;

constexpr std::size_t kLengthBytes = sizeof(std::uint64_t);
constexpr std::uint64_t kLongestHeader = 100'000'000;
constexpr const char* kMetadata = "__metadata__";

std::size_t bytesPerElement(const std::string& type) {
  static constexpr std::pair<std::string_view, std::size_t> sizes[] = {
      {"BOOL", 1}, {"U8", 1},  {"I8", 1},   {"F8_E5M2", 1}, {"F8_E4M3", 1}, {"I16", 2},
      {"U16", 2},  {"F16", 2}, {"BF16", 2}, {"I32", 4},     {"U32", 4},     {"F32", 4},
      {"F64", 8},  {"I64", 8}, {"U64", 8},  {"C64", 8}};
  for (const auto& [known, size] : sizes)
    if (type == known) return size;
  return 0;
}

std::string_view readHeader(std::string_view bytes) {
  if (bytes.size() < kLengthBytes)
    throw Failure("expected 8 bytes of header length, found " + std::to_string(bytes.size()));
  std::uint64_t length = 0;
  std::memcpy(&length, bytes.data(), kLengthBytes);
  if (length > kLongestHeader)
    throw Failure("expected a header of at most " + std::to_string(kLongestHeader) +
                  " bytes, found " + std::to_string(length));
  bytes.remove_prefix(kLengthBytes);
  if (length > bytes.size())
    throw Failure("expected a header of " + std::to_string(length) + " bytes, found " +
                  std::to_string(bytes.size()));
  return bytes.substr(0, length);
}

std::vector<std::size_t> readSizes(const std::string& tensor, const json& entry, const char* key) {
  const auto sizes = entry.find(key);
  const auto isWhole = [](const json& number) { return number.is_number_unsigned(); };
  if (sizes == entry.end() || !sizes->is_array() ||
      !std::all_of(sizes->begin(), sizes->end(), isWhole))
    throw Failure(tensor + ": expected " + key + " to be whole numbers, found something else");
  return sizes->get<std::vector<std::size_t>>();
}

std::size_t countBytes(const StoredTensor& tensor) {
  std::size_t bytes = bytesPerElement(tensor.type);
  for (const std::size_t size : tensor.shape)
    if (__builtin_mul_overflow(bytes, size, &bytes))
      throw Failure(tensor.name + ": expected a shape that memory can hold, found a larger one");
  return bytes;
}

StoredTensor readEntry(const std::string& name, const json& entry, std::string_view data) {
  if (!entry.is_object()) throw Failure(name + ": expected an object, found " + entry.type_name());
  StoredTensor tensor;
  tensor.name = name;
  const auto type = entry.find("dtype");
  if (type == entry.end() || !type->is_string() || bytesPerElement(*type) == 0)
    throw Failure(name + ": expected a known dtype, found " +
                  (type == entry.end() ? "none" : type->dump()));
  tensor.type = *type;
  tensor.shape = readSizes(name, entry, "shape");
  const std::vector<std::size_t> offsets = readSizes(name, entry, "data_offsets");
  if (offsets.size() != 2 || offsets[0] > offsets[1] || offsets[1] > data.size())
    throw Failure(name + ": expected the start and end of data inside " +
                  std::to_string(data.size()) + " bytes, found " + entry["data_offsets"].dump());
  tensor.data = data.substr(offsets[0], offsets[1] - offsets[0]);
  if (const std::size_t bytes = countBytes(tensor); bytes != tensor.data.size())
    throw Failure(name + ": expected " + std::to_string(bytes) + " bytes of data, found " +
                  std::to_string(tensor.data.size()));
  return tensor;
}

void checkMetadata(const json& metadata) {
  const auto isString = [](const json& value) { return value.is_string(); };
  if (!metadata.is_object() || !std::all_of(metadata.begin(), metadata.end(), isString))
    throw Failure(std::string("expected ") + kMetadata +
                  " to be an object of strings, found something else");
}

void checkCoverage(const std::vector<StoredTensor>& tensors, std::string_view data) {
  const char* position = data.data();
  for (const StoredTensor& tensor : tensors) {
    if (tensor.data.data() != position)
      throw Failure(tensor.name + ": expected its data at byte " +
                    std::to_string(position - data.data()) + ", found it at " +
                    std::to_string(tensor.data.data() - data.data()));
    position += tensor.data.size();
  }
  if (position != data.data() + data.size())
    throw Failure("expected " + std::to_string(position - data.data()) + " bytes of data, found " +
                  std::to_string(data.size()));
}

std::uint32_t widenHalf(std::uint16_t half) {
  const std::uint32_t sign = std::uint32_t{half & 0x8000U} << 16;
  std::uint32_t exponent = half >> 10 & 0x1FU;
  std::uint32_t mantissa = half & 0x3FFU;
  if (exponent == 0x1F) return sign | 0x7F800000U | mantissa << 13;
  if (exponent == 0) {
    if (mantissa == 0) return sign;
    for (exponent = 1; mantissa < 0x400; --exponent) mantissa <<= 1;
    mantissa &= 0x3FF;
  }
  return sign | (exponent + 127 - 15) << 23 | mantissa << 13;
}

std::uint32_t widenBfloat(std::uint16_t bfloat) { return std::uint32_t{bfloat} << 16; }

}  // namespace

std::size_t StoredTensor::elements() const { return data.size() / bytesPerElement(type); }

std::vector<StoredTensor> parseSafetensors(std::string_view bytes) {
  constexpr std::size_t kLevels = 3;  // the header, a tensor, its shape
  const std::string_view text = readHeader(bytes);
  const json header = parseStrictJson(text, kLevels);
  if (!header.is_object())
    throw Failure(std::string("expected the header to be an object, found ") + header.type_name());
  const std::string_view data = bytes.substr(kLengthBytes + text.size());
  std::vector<StoredTensor> tensors;
  for (const auto& [name, entry] : header.items()) {
    if (name == kMetadata) {
      checkMetadata(entry);
    } else {
      tensors.push_back(readEntry(name, entry, data));
    }
  }
  std::sort(tensors.begin(), tensors.end(), [](const StoredTensor& a, const StoredTensor& b) {
    return std::pair(a.data.data(), a.data.size()) < std::pair(b.data.data(), b.data.size());
  });
  checkCoverage(tensors, data);
  return tensors;
}

TensorFile::TensorFile(const std::string& path) : bytes_(readFile(path)) {
  try {
    tensors_ = parseSafetensors({bytes_.data.get(), bytes_.size});
  } catch (const Failure& failure) {
    throw Failure(path + ": " + failure.what());
  }
}

void writeSafetensors(const std::vector<StoredTensor>& tensors, const std::string& network,
                      std::ostream& out) {
  nlohmann::ordered_json header = {{kMetadata, {{"network", network}}}};
  std::size_t begin = 0;
  for (const StoredTensor& tensor : tensors) {
    const std::size_t end = begin + tensor.data.size();
    header[tensor.name] = {
        {"dtype", tensor.type}, {"shape", tensor.shape}, {"data_offsets", {begin, end}}};
    begin = end;
  }
  std::string text;
  try {
    text = header.dump();
  } catch (const json::type_error&) {
    throw Failure("names of tensors: expected UTF-8, found other bytes");
  }
  constexpr std::size_t kAlignment = 8;
  text.resize((text.size() + kAlignment - 1) / kAlignment * kAlignment, ' ');
  const std::uint64_t length = text.size();
  out.write(reinterpret_cast<const char*>(&length), kLengthBytes);
  out << text;
  for (const StoredTensor& tensor : tensors) out << tensor.data;
}

bool holdsFloats(const StoredTensor& tensor) {
  return tensor.type == "F32" || tensor.type == "F16" || tensor.type == "BF16";
}

void readFloats(const StoredTensor& tensor,
                const std::function<void(std::string_view floats)>& take) {
  if (tensor.type == "F32") return take(tensor.data);
  const auto widen = tensor.type == "F16" ? widenHalf : widenBfloat;
  std::array<std::uint32_t, 4096> floats;
  const std::size_t elements = tensor.elements();
  for (std::size_t done = 0, count = 0; done < elements; done += count) {
    count = std::min(elements - done, floats.size());
    for (std::size_t i = 0; i < count; ++i) {
      std::uint16_t bits = 0;
      std::memcpy(&bits, tensor.data.data() + (done + i) * sizeof bits, sizeof bits);
      floats[i] = widen(bits);
    }
    take({reinterpret_cast<const char*>(floats.data()), count * sizeof(float)});
  }
}

}  // namespace facezoo
