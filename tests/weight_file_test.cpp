// What a weight file may look like, and the one answer to each that it may not.
#include "seeded_network.h"

#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>

namespace facezoo::test {
namespace {

enum class Answer { loads, notFound, badWeights, insufficientBytes, parseError };

std::ostream& operator<<(std::ostream& out, Answer answer) {
  static const char* const names[] = {"loads", "not found", "bad weights", "insufficient bytes",
                                      "parse error"};
  return out << names[static_cast<int>(answer)];
}

Answer construct(const char* path) {
  try {
    DexpressionNet net(path, 1, "");
    return Answer::loads;
  } catch (NetworkError error) {
    return error == 0 ? Answer::notFound : Answer::badWeights;
  } catch (const msgpack::v1::insufficient_bytes& error) {
    EXPECT_STREQ("insufficient bytes", error.what());
    return Answer::insufficientBytes;
  } catch (const msgpack::v1::parse_error& error) {
    EXPECT_STREQ("parse error", error.what());
    return Answer::parseError;
  }
}

class WeightFileTest : public DeviceTest {
 protected:
  /// Constructs from a file of `bytes` and expects the answer and what it prints.
  static void expect(const char* what, const std::string& bytes, Answer answer,
                     const std::string& printed) {
    SCOPED_TRACE(what);
    const TemporaryFile file;
    std::ofstream(file.path, std::ios::binary) << bytes;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(answer, construct(file.path.c_str()));
    std::fflush(stdout);
    EXPECT_EQ(printed, testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, NetworkProbe::count());
  }
};

TEST_F(WeightFileTest, WhatIsNotAReadableFileIsNotFound) {
  for (const std::string& path : {std::string("/nonexistent/weights"), std::string(),
                                  std::filesystem::temp_directory_path().string()}) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(Answer::notFound, construct(path.c_str())) << path;
    std::fflush(stdout);
    EXPECT_EQ("Weight file not found.\n", testing::internal::GetCapturedStdout()) << path;
  }
  testing::internal::CaptureStdout();
  EXPECT_EQ(Answer::notFound, construct(nullptr));
  testing::internal::GetCapturedStdout();
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
  };
  for (const auto& c : cases) expect(c.what, c.bytes, c.answer, "");
  expect("an empty map", std::string("\x80"), Answer::badWeights, "inMean-0 not found.\n");
}

TEST_F(WeightFileTest, LengthsBeyondTheFileAreAnsweredAtOnce) {
  const std::string claims[] = {
      std::string("\xdd\xff\xff\xff\xff", 5),          // array of 2^32 - 1
      std::string("\xdf\xff\xff\xff\xff", 5),          // map
      std::string("\xdb\xff\xff\xff\xff", 5),          // string
      std::string("\xc6\xff\xff\xff\xff", 5),          // binary
      std::string("\xc9\xff\xff\xff\xff\x01", 6),      // extension
      std::string("\x81\xa1x\xdd\x7f\xff\xff\xff", 8)  // inside a map
  };
  const auto peakKiB = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
  };
  construct("/dev/null");  // the shared context is not the file's
  for (const std::string& claim : claims) {
    const long before = peakKiB();
    const auto start = std::chrono::steady_clock::now();
    expect("a length beyond the file", claim, Answer::insufficientBytes, "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_LT(peakKiB() - before, 64 * 1024);
  }
}

TEST_F(WeightFileTest, AFileCutAnywhereIsInsufficient) {
  const TemporaryFile file;
  seededDocument(dexpressionNet).save(file.path);
  const auto size = std::filesystem::file_size(file.path);
  for (auto length = (size - 1) / 1000 * 1000;; length -= 1000) {
    std::filesystem::resize_file(file.path, length);
    ASSERT_EQ(Answer::insufficientBytes, construct(file.path.c_str())) << length;
    if (length == 0) break;
  }
}

TEST_F(WeightFileTest, EveryArrayIsNeededAtItsLength) {
  using Packer = Document::Packer;
  const auto packFloats = [](Packer& packer, std::size_t bytes) {
    packer.pack_str(static_cast<std::uint32_t>(bytes));
    packer.pack_str_body(std::string(bytes, '\0').data(), static_cast<std::uint32_t>(bytes));
  };
  /// The whole document with the entry `name` replaced by what `change` adds.
  const auto changed = [](const std::string& name, const std::function<void(Document&)>& change) {
    Document document;
    for (const LayerSpec& layer : dexpressionNet.layers) {
      forEachWeight(layer, [&](const char* suffix, std::size_t elements, WeightRole) {
        const std::string full = std::string(layer.name) + suffix;
        if (full == name) {
          change(document);
        } else {
          document.add(full, std::vector<float>(elements, 0.0F));
        }
      });
    }
    return document.bytes();
  };
  const auto raw = [](const std::string& name, const std::function<void(Packer&)>& pack) {
    return [=](Document& d) { d.raw(name, pack); };
  };
  const std::string bias = "conv2b-1";  // 208 floats
  const struct {
    const char* what;
    std::function<void(Document&)> change;
    Answer answer;
    std::string printed;
  } cases[] = {
      {"absent", [](Document&) {}, Answer::badWeights, "conv2b-1 not found.\n"},
      {"another case", raw("Conv2b-1", [&](Packer& p) { packFloats(p, 832); }), Answer::badWeights,
       "conv2b-1 not found.\n"},
      {"a space behind", raw("conv2b-1 ", [&](Packer& p) { packFloats(p, 832); }),
       Answer::badWeights, "conv2b-1 not found.\n"},
      {"one byte short", raw(bias, [&](Packer& p) { packFloats(p, 831); }), Answer::badWeights,
       "weight size mismatch. conv2b-1 831 832\n"},
      {"one byte long", raw(bias, [&](Packer& p) { packFloats(p, 833); }), Answer::badWeights,
       "weight size mismatch. conv2b-1 833 832\n"},
      {"binary of the right length",
       raw(bias,
           [](Packer& p) {
             p.pack_bin(832);
             p.pack_bin_body(std::string(832, '\0').data(), 832);
           }),
       Answer::badWeights, "weight size mismatch. conv2b-1 832 832\n"},
      {"a number", raw(bias, [](Packer& p) { p.pack(5); }), Answer::badWeights,
       "weight size mismatch. conv2b-1 0 832\n"},
      {"twice, the first one good",
       [&](Document& d) {
         d.raw(bias, [&](Packer& p) { packFloats(p, 832); });
         d.raw(bias, [&](Packer& p) { packFloats(p, 4); });
       },
       Answer::loads, ""},
      {"twice, the first one bad",
       [&](Document& d) {
         d.raw(bias, [&](Packer& p) { packFloats(p, 4); });
         d.raw(bias, [&](Packer& p) { packFloats(p, 832); });
       },
       Answer::badWeights, "weight size mismatch. conv2b-1 4 832\n"},
      {"beside keys that are no strings",
       [&](Document& d) {
         d.entry([](Packer& p) { p.pack(1).pack(2); });
         d.raw(bias, [&](Packer& p) { packFloats(p, 832); });
       },
       Answer::loads, ""},
  };
  for (const auto& c : cases) expect(c.what, changed(bias, c.change), c.answer, c.printed);
  // The last head goes missing after nine layers were built; DeviceTest sees what they leave.
  expect("no eye head", changed("loss3/classifier_acce_eye-0", [](Document&) {}),
         Answer::badWeights, "loss3/classifier_acce_eye-0 not found.\n");
}

}  // namespace
}  // namespace facezoo::test
