/// @file
/// What a network's constructor answers to a weight file.
#pragma once

#include "facezoo.h"

#include <gtest/gtest.h>

#include <ostream>

namespace facezoo::test {

enum class Answer { loads, notFound, badWeights, insufficientBytes, parseError };

inline std::ostream& operator<<(std::ostream& out, Answer answer) {
  static const char* const names[] = {"loads", "not found", "bad weights", "insufficient bytes",
                                      "parse error"};
  return out << names[static_cast<int>(answer)];
}

template <class Net>
Answer answerTo(const char* path) {
  try {
    Net net(path, 1, "");
    return Answer::loads;
  } catch (NetworkError error) {
    return error == WEIGHT_FILE_NOT_FOUND ? Answer::notFound : Answer::badWeights;
  } catch (const msgpack::v1::insufficient_bytes& error) {
    EXPECT_STREQ("insufficient bytes", error.what());
    return Answer::insufficientBytes;
  } catch (const msgpack::v1::parse_error& error) {
    EXPECT_STREQ("parse error", error.what());
    return Answer::parseError;
  }
}

}  // namespace facezoo::test
