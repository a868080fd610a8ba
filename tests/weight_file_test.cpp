// Which weight files a network accepts, and the answer to each that it does not.
#include "seeded_network.h"
#include "weight_answer.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>

namespace facezoo::test {
namespace {

Answer construct(const char* path) { return answerTo<DexpressionNet>(path); }

class WeightFileTest : public DeviceTest {
 protected:
  /// Constructs a network from a file of `bytes`, which must give the answer and print that text
  /// within a second, and take no more memory than the file's size explains.
  static void expect(const char* what, const std::string& bytes, Answer answer,
                     const std::string& printed) {
    SCOPED_TRACE(what);
    const TemporaryFile file;
    std::ofstream(file.path, std::ios::binary) << bytes;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    construct("/dev/null");  // creates the shared context, whose memory must not count
    const long before = peakKiB();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(answer, construct(file.path.c_str()));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_LT(peakKiB() - before, static_cast<long>(bytes.size() >> 10) + 64 * 1024);
    std::fflush(stdout);
    EXPECT_EQ(printed, testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, NetworkProbe::count());
  }
  static long peakKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
  }
};

TEST_F(WeightFileTest, WhatIsNotAReadableFileIsNotFound) {
  const std::string directory = std::filesystem::temp_directory_path().string();
  const char* const paths[] = {"/nonexistent/weights", "", directory.c_str(), nullptr};
  for (const char* const path : paths) {
    SCOPED_TRACE(path == nullptr ? "null" : path);
    testing::internal::CaptureStdout();
    EXPECT_EQ(Answer::notFound, construct(path));
    std::fflush(stdout);
    EXPECT_EQ("Weight file not found.\n", testing::internal::GetCapturedStdout());
  }
}

TEST_F(WeightFileTest, AFileWithoutASizeIsReadToItsEnd) {
  const std::string good = seededDocument(dexpressionNet).bytes();
  const TemporaryFile pipe;
  ASSERT_EQ(0, mkfifo(pipe.path.c_str(), S_IRUSR | S_IWUSR));
  for (const auto& [length, answer] :
       {std::pair{good.size(), Answer::loads}, {good.size() - 1, Answer::insufficientBytes}}) {
    std::thread writer(
        [&, end = length] { std::ofstream(pipe.path, std::ios::binary).write(good.data(), end); });
    EXPECT_EQ(answer, construct(pipe.path.c_str()));
    writer.join();
  }
}

#ifndef FACEZOO_SANITIZED  // sanitizers end a process that runs out of memory
TEST_F(WeightFileTest, AFileThatMemoryCannotHoldIsBadAlloc) {
  constexpr rlim_t kTiB = rlim_t{1} << 40;
  const TemporaryFile file;
  std::ofstream(file.path).close();
  std::filesystem::resize_file(file.path, 8 * kTiB);  // sparse: it takes no room on the disk
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  const rlimit lower{kTiB, limit.rlim_max};
  setrlimit(RLIMIT_AS, &lower);
  EXPECT_THROW(SmallNetwork(file.path.c_str(), 1, ""), std::bad_alloc);
  setrlimit(RLIMIT_AS, &limit);
  EXPECT_EQ(0, NetworkProbe::count());
}
#endif

TEST_F(WeightFileTest, TheDocumentOutlivesItsFileAndEveryHolderButTheLast) {
  const Document document = seededDocument(dexpressionNet);
  const std::string good = document.bytes();
  msgpack::v1::unpacked last;
  {
    msgpack::v1::unpacked first;
    const TemporaryFile file;
    document.save(file.path);
    DexpressionNet net(file.path.c_str(), 1, "");
    net.openMsgPack(file.path.c_str(), first);
    net.openMsgPack(file.path.c_str(), first);
    last = std::move(first);
  }
  msgpack::v1::sbuffer packed;
  msgpack::v1::pack(packed, last.get());
  EXPECT_TRUE(good == std::string(packed.data(), packed.size()));
}

TEST_F(WeightFileTest, DocumentsOfTheWrongFormHaveTheirAnswers) {
  const std::string good = seededDocument(dexpressionNet).bytes();
  const auto nested = [](int depth) { return std::string(depth, '\x91') + '\xc0'; };
  const struct {
    const char* what;
    std::string bytes;
    Answer answer;
  } cases[] = {
      {"one byte more", good + 'x', Answer::loads},
      {"empty", "", Answer::insufficientBytes},
      {"one byte short", good.substr(0, good.size() - 1), Answer::insufficientBytes},
      {"no MessagePack", "\xc1 is never used", Answer::parseError},
      {"root nil", "\xc0", Answer::badWeights},
      {"root an array", "\x91\xc0", Answer::badWeights},
      {"root a string",
       "\xa3"
       "abc",
       Answer::badWeights},
      {"nesting of 32", nested(32), Answer::badWeights},
      {"nesting of 33", nested(33), Answer::parseError},
      {"nesting of a million", nested(1000000), Answer::parseError},
      {"array of 2^32 - 1", std::string("\xdd\xff\xff\xff\xff", 5), Answer::insufficientBytes},
      {"map", std::string("\xdf\xff\xff\xff\xff", 5), Answer::insufficientBytes},
      {"string", std::string("\xdb\xff\xff\xff\xff", 5), Answer::insufficientBytes},
      {"binary", std::string("\xc6\xff\xff\xff\xff", 5), Answer::insufficientBytes},
      {"extension", std::string("\xc9\xff\xff\xff\xff\x01", 6), Answer::insufficientBytes},
      {"inside a map", std::string("\x81\xa1x\xdd\x7f\xff\xff\xff", 8), Answer::insufficientBytes},
  };
  for (const auto& c : cases) expect(c.what, c.bytes, c.answer, "");
  expect("an empty map", std::string("\x80"), Answer::badWeights, "inMean-0 not found.\n");
}

TEST_F(WeightFileTest, EntriesMayHaveAnyTypeAndContainersLoseTheirElements) {
  namespace type = msgpack::v1::type;
  const struct {
    type::object_type type;
    std::string bytes;
    std::uint32_t size;
  } values[] = {{type::NIL, "\xc0", 0},
                {type::BOOLEAN, "\xc2", 0},
                {type::POSITIVE_INTEGER, "\x05", 0},
                {type::NEGATIVE_INTEGER, "\xff", 0},
                {type::FLOAT32, std::string("\xca\0\0\0\0", 5), 0},
                {type::FLOAT64, std::string("\xcb\0\0\0\0\0\0\0\0", 9), 0},
                {type::STR, "\xa2xy", 2},
                {type::BIN, "\xc4\x02xy", 2},
                {type::EXT, "\xd5\x01xy", 2}};
  std::string map("\xde\0\x12", 3), nested;
  for (const auto& value : values) nested += value.bytes + "\x91\xc0";
  for (const auto& value : values)
    map += value.bytes + "\x89" + nested + "\x92" + value.bytes + "\xc0" + value.bytes;
  const TemporaryFile good, file;
  seededDocument(smallNetwork).save(good.path);
  SmallNetwork net(good.path.c_str(), 1, "");
  std::ofstream(file.path, std::ios::binary) << map;
  msgpack::v1::unpacked document;
  net.openMsgPack(file.path.c_str(), document);
  ASSERT_EQ(18U, document->via.map.size);
  const msgpack::v1::object_kv* entry = document->via.map.ptr;
  for (const auto& value : values) {
    for (const msgpack::v1::object& built : {entry[0].key, entry[1].val}) {
      EXPECT_EQ(value.type, built.type);
      EXPECT_EQ(value.size, built.via.str.size);
    }
    EXPECT_EQ(type::MAP, entry[0].val.type);
    EXPECT_EQ(type::ARRAY, entry[1].key.type);
    EXPECT_EQ(0U, entry[0].val.via.map.size + entry[1].key.via.array.size);
    entry += 2;
  }
}

TEST_F(WeightFileTest, AFileCutAnywhereIsInsufficient) {
  const TemporaryFile file;
  seededDocument(smallNetwork).save(file.path);
  const SmallNetwork other(file.path.c_str(), 1, "");  // holds the shared context
  for (auto length = std::filesystem::file_size(file.path); length-- > 0;) {
    std::filesystem::resize_file(file.path, length);
    ASSERT_EQ(Answer::insufficientBytes, answerTo<SmallNetwork>(file.path.c_str())) << length;
  }
}

/// An entry of a map, whose value is `bytes` zeros, as a string or as binary data, or a number.
/// With `numberKey` the key is a number, too.
struct Entry {
  std::string key;
  enum Kind { string, binary, number, numberKey } kind;
  std::uint32_t bytes;
};

void add(Document& document, const Entry& entry) {
  const std::string zeros(entry.bytes, '\0');
  document.entry([&](Document::Packer& packer) {
    if (entry.kind == Entry::numberKey) {
      packer.pack(1);
    } else {
      packer.pack(entry.key);
    }
    switch (entry.kind) {
      case Entry::string:
        packer.pack_str(entry.bytes).pack_str_body(zeros.data(), entry.bytes);
        break;
      case Entry::binary:
        packer.pack_bin(entry.bytes).pack_bin_body(zeros.data(), entry.bytes);
        break;
      default:
        packer.pack(5);
    }
  });
}

/// A good document in which `entries` stand in place of the array `name`.
std::string changedDocument(const std::string& name, const std::vector<Entry>& entries) {
  Document document;
  forEachWeight(dexpressionNet.layers, "",
                [&](const std::string& full, std::size_t elements, auto&&...) {
                  if (full != name)
                    add(document, {full, Entry::string, static_cast<std::uint32_t>(elements * 4)});
                });
  for (const Entry& entry : entries) add(document, entry);
  return document.bytes();
}

TEST_F(WeightFileTest, EveryArrayIsNeededAtItsLength) {
  const std::string bias = "conv2b-1";  // 208 floats
  const std::string absent = bias + " not found.\n";
  const auto found = [&](const char* bytes) {
    return "weight size mismatch. " + bias + " " + bytes + " 832\n";
  };
  constexpr auto bad = Answer::badWeights, ok = Answer::loads;
  const struct {
    const char* what;
    std::vector<Entry> entries;
    Answer answer;
    std::string printed;
  } cases[] = {
      {"absent", {}, bad, absent},
      {"another case", {{"Conv2b-1", Entry::string, 832}}, bad, absent},
      {"a space behind", {{"conv2b-1 ", Entry::string, 832}}, bad, absent},
      {"one byte short", {{bias, Entry::string, 831}}, bad, found("831")},
      {"one byte long", {{bias, Entry::string, 833}}, bad, found("833")},
      {"binary of the right length", {{bias, Entry::binary, 832}}, bad, found("832")},
      {"a number", {{bias, Entry::number, 0}}, bad, found("0")},
      {"twice, good", {{bias, Entry::string, 832}, {bias, Entry::string, 4}}, ok, ""},
      {"twice, bad", {{bias, Entry::string, 4}, {bias, Entry::string, 832}}, bad, found("4")},
      {"a key that is a number", {{"", Entry::numberKey, 0}, {bias, Entry::string, 832}}, ok, ""},
  };
  for (const auto& c : cases) {
    expect(c.what, changedDocument(bias, c.entries), c.answer, c.printed);
  }
  // Nine layers exist when the last head is found missing; DeviceTest checks that they leave
  // nothing.
  expect("no eye head", changedDocument("loss3/classifier_acce_eye-0", {}), bad,
         "loss3/classifier_acce_eye-0 not found.\n");
}

}  // namespace
}  // namespace facezoo::test
