// Weight files in which one byte of a header or a name has another value. A decoder of the tests'
// own says what the answer must be, and the memory taken must be in proportion to the file.
#include "heap.h"
#include "seeded_network.h"
#include "weight_answer.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <string_view>

namespace facezoo::test {
namespace {

/// In how many bytes the lengths of maps and strings are written; 0 means inside the first byte.
struct Encoding {
  int map, string;
};

/// A weight file, byte by byte.
struct File {
  std::string bytes;
  std::vector<std::size_t> headers, keys, payload;  ///< their positions in `bytes`

  explicit File(const Encoding& encoding) {
    const auto shortestFor = [](std::size_t length) {
      return length < 32 ? 0 : length < 256 ? 1 : 2;
    };
    std::size_t count = 0;
    forEachWeight(smallNetwork.layers, "", [&](auto&&...) { ++count; });
    header(count, encoding.map, 0x80, 0xde - 1);  // maps have no length of 1
    forEachWeight(smallNetwork.layers, "",
                  [&](const std::string& name, std::size_t elements, auto&&...) {
                    header(name.size(), encoding.string, 0xa0, 0xd9);
                    append(name, keys);
                    const std::vector<float> values = seededValues(elements, 1, 0.5, 2);
                    const std::size_t length = elements * sizeof(float);
                    header(length, std::max(encoding.string, shortestFor(length)), 0xa0, 0xd9);
                    append({reinterpret_cast<const char*>(values.data()), length}, payload);
                  });
  }

 private:
  void append(std::string_view part, std::vector<std::size_t>& kind) {
    for (const char byte : part) {
      kind.push_back(bytes.size());
      bytes += byte;
    }
  }
  /// Appends a tag and `width` bytes of length. The tag of one byte of length is `first`, and those
  /// of 2 and 4 bytes follow it. Without any, the tag is `fixed` plus the length.
  void header(std::size_t length, int width, int fixed, int first) {
    std::string part(1, static_cast<char>(width == 0 ? fixed + length : first + width / 2));
    while (width-- > 0) part += static_cast<char>(length >> 8 * width);
    append(part, headers);
  }
};

/// A value of a MessagePack document.
struct Value {
  char family;                  ///< s: string, b: binary or extension, m: map, a: array, -: others
  std::string_view payload;     ///< of a string, binary or extension value
  std::vector<Value> elements;  ///< of an array; of a map, keys and values in turn
};

/// Decodes MessagePack; throws the answer to what is no document.
class Decoder {
 public:
  explicit Decoder(std::string_view bytes) : bytes_(bytes) {}

  Value value(int depth = 1) {
    const std::size_t tag = number(1);
    if (tag < 0x80 || tag >= 0xe0) return {'-', {}, {}};
    if (tag < 0x90) return container('m', tag & 0xf, depth);
    if (tag < 0xa0) return container('a', tag & 0xf, depth);
    if (tag < 0xc0) return {'s', take(tag & 0x1f), {}};
    // For each tag from 0xc0: the family of its values, how many bytes of length follow, and how
    // many bytes of a number or of an extension's type.
    static constexpr char families[] = "-!--bbbbbb----------bbbbbsssaamm";
    static constexpr int lengths[32] = {0, 0, 0, 0, 1, 2, 4, 1, 2, 4, 0, 0, 0, 0, 0, 0,
                                        0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 4, 2, 4, 2, 4};
    static constexpr int others[32] = {0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 4, 8, 1, 2, 4, 8,
                                       1, 2, 4, 8, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
    const std::size_t i = tag - 0xc0;
    if (families[i] == '!') throw Answer::parseError;
    const bool fixedExtension = tag >= 0xd4 && tag <= 0xd8;
    const std::size_t length = fixedExtension ? 1U << (tag - 0xd4) : number(lengths[i]);
    if (families[i] == 'a' || families[i] == 'm') return container(families[i], length, depth);
    take(others[i]);
    return {families[i], take(length), {}};
  }

 private:
  std::string_view take(std::size_t count) {
    if (count > bytes_.size()) throw Answer::insufficientBytes;
    const std::string_view part = bytes_.substr(0, count);
    bytes_.remove_prefix(count);
    return part;
  }
  std::size_t number(std::size_t width) {
    std::size_t result = 0;
    for (const char byte : take(width)) result = result << 8 | static_cast<unsigned char>(byte);
    return result;
  }
  Value container(char family, std::size_t length, int depth) {
    if (depth > 32) throw Answer::parseError;
    Value result{family, {}, {}};
    for (std::size_t i = 0; i < length * (family == 'm' ? 2 : 1); ++i) {
      result.elements.push_back(value(depth + 1));
    }
    return result;
  }

  std::string_view bytes_;
};

/// The answer to a file, and what is printed with it.
std::pair<Answer, std::string> judge(const std::string& bytes) {
  try {
    const Value root = Decoder(bytes).value();
    if (root.family != 'm') return {Answer::badWeights, ""};
    std::string printed;
    forEachWeight(smallNetwork.layers, "",
                  [&](const std::string& name, std::size_t elements, auto&&...) {
                    if (!printed.empty()) return;
                    printed = name + " not found.\n";
                    const std::size_t expected = elements * sizeof(float);
                    for (std::size_t i = 0; i < root.elements.size(); i += 2) {
                      const Value &key = root.elements[i], &found = root.elements[i + 1];
                      if (key.family != 's' || key.payload != name) continue;
                      const bool good = found.family == 's' && found.payload.size() == expected;
                      printed = good ? ""
                                     : "weight size mismatch. " + name + " " +
                                           std::to_string(found.payload.size()) + " " +
                                           std::to_string(expected) + "\n";
                      break;
                    }
                  });
    return {printed.empty() ? Answer::loads : Answer::badWeights, printed};
  } catch (Answer answer) {
    return {answer, ""};
  }
}

class WeightBytesTest : public DeviceTest {
 protected:
  void SetUp() override {
    DeviceTest::SetUp();
    seededDocument(smallNetwork).save(good_.path);
    other_ = std::make_unique<SmallNetwork>(good_.path.c_str(), 1, "");
    live_ = host_device::live();
    file_ = open(path_.path.c_str(), O_RDWR | O_CREAT, S_IRUSR | S_IWUSR);
    ASSERT_GE(file_, 0);
  }
  void TearDown() override {
    close(file_);
    EXPECT_EQ(1, NetworkProbe::count());
    EXPECT_EQ(live_.bytes, host_device::live().bytes);
    EXPECT_EQ(live_.descriptors, host_device::live().descriptors);
    other_.reset();
    DeviceTest::TearDown();
  }

  /// Constructs from `bytes`, which differ from those of the last time in `position` only.
  void check(const std::string& bytes, std::size_t position) {
    ASSERT_EQ(1, pwrite(file_, &bytes[position], 1, static_cast<off_t>(position)));
    const auto [answer, printed] = judge(bytes);
    heap::restart();
    const std::size_t before = heap::usage().bytes;
    EXPECT_EQ(answer, answerTo<SmallNetwork>(path_.path.c_str()));
    EXPECT_LE(heap::usage().peak - before, 2 * bytes.size() + (std::size_t{64} << 20));
    printed_ += printed;
  }

  TemporaryFile good_, path_;
  int file_ = -1;
  std::unique_ptr<SmallNetwork> other_;  ///< keeps the shared context alive
  host_device::Live live_{};
  std::string printed_;
};

#ifdef FACEZOO_SANITIZED
constexpr int kStep = 5;  // all values would take a minute
#else
constexpr int kStep = 1;
#endif

TEST_F(WeightBytesTest, AnyByteMayHaveAnyValue) {
  int files = 0;
  for (const Encoding& encoding : {Encoding{0, 0}, {2, 1}, {2, 2}, {4, 4}}) {
    const File file(encoding);
    ASSERT_EQ(0, ftruncate(file_, 0));
    ASSERT_EQ(file.bytes.size(), pwrite(file_, file.bytes.data(), file.bytes.size(), 0));
    std::vector<std::size_t> positions = file.headers;
    if (encoding.map == 0) {
      positions.insert(positions.end(), file.keys.begin(), file.keys.end());
      for (std::size_t i = 0; i < file.payload.size(); i += 50)
        positions.push_back(file.payload[i]);
    }
    for (const std::size_t position : positions) {
      SCOPED_TRACE("lengths of " + std::to_string(encoding.string) + ", byte " +
                   std::to_string(position));
      testing::internal::CaptureStdout();
      printed_.clear();
      std::string bytes = file.bytes;
      for (int value = static_cast<int>(position) % kStep; value < 256; value += kStep) {
        bytes[position] = static_cast<char>(value);
        check(bytes, position);
        ++files;
      }
      check(file.bytes, position);
      EXPECT_EQ(printed_, testing::internal::GetCapturedStdout());
      if (HasFailure()) return;
    }
  }
  std::cout << "visited " << files << " weight files that differ in one byte\n";
}

TEST_F(WeightBytesTest, WhatLiesBehindTheDocumentIsNotKept) {
  std::size_t withoutTail = 0;
  for (const std::size_t tail : {0, 1, 64 << 20}) {
    std::filesystem::copy_file(good_.path, path_.path,
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::resize_file(path_.path, std::filesystem::file_size(good_.path) + tail);
    heap::restart();
    const std::size_t before = heap::usage().bytes;
    const SmallNetwork net(path_.path.c_str(), 1, "");
    const std::size_t kept = heap::usage().bytes - before;
    if (tail == 0) withoutTail = kept;
    EXPECT_LE(kept, withoutTail + (std::size_t{16} << 10)) << tail;
  }
}

// A value of one byte in the file takes many times as much memory once it is parsed.
TEST_F(WeightBytesTest, WideDocumentsTakeNoMoreThanTheirEntries) {
  constexpr std::size_t wide = std::size_t{32} << 20, entry = 48;
  const auto header = [](char tag, std::size_t count) {
    std::string bytes(1, tag);
    for (const int shift : {24, 16, 8, 0}) bytes += static_cast<char>(count >> shift);
    return bytes;
  };
  const std::string nils = header('\xdd', wide) + std::string(wide, '\xc0');
  std::string pairs;
  for (std::size_t i = 0; i < wide / entry; ++i) pairs += "\xa0\xc0";
  const struct {
    const char* name;
    std::string bytes;
    std::size_t entries;
    std::string printed;
  } documents[] = {
      {"array", nils, 0, ""},
      {"array in a map", "\x81\xa0" + nils, 1, "inMean-0 not found.\n"},
      {"array of a weight's name", "\x81\xa8inMean-0" + nils, 1,
       "weight size mismatch. inMean-0 0 64\n"},
      {"map", header('\xdf', wide / entry) + pairs, wide / entry, "inMean-0 not found.\n"}};
  for (const auto& document : documents) {
    SCOPED_TRACE(document.name);
    std::ofstream(path_.path, std::ios::binary) << document.bytes;
    testing::internal::CaptureStdout();
    heap::restart();
    const std::size_t before = heap::usage().bytes;
    EXPECT_EQ(Answer::badWeights, answerTo<SmallNetwork>(path_.path.c_str()));
    EXPECT_LE(heap::usage().peak - before,
              document.bytes.size() + document.entries * entry + (std::size_t{8} << 20));
    EXPECT_EQ(document.printed, testing::internal::GetCapturedStdout());
  }
}

}  // namespace
}  // namespace facezoo::test
