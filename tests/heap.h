/// @file
/// Counts the heap's allocations and lets some fail, in the whole process of the executable that
/// heap.cpp is part of. Sanitizers bring a heap of their own: with them, only the operators new and
/// delete are watched.
#pragma once

#include <cstddef>

namespace facezoo::test::heap {

struct Usage {
  std::size_t allocations;  ///< since the last `restart`
  std::size_t fromOutside;  ///< of them, those by code outside this executable
  const char* firstCaller;  ///< where the first of these was made; null without any
  std::size_t live;         ///< not yet given back
  std::size_t bytes;        ///< in these, as the heap has rounded them up
  std::size_t peak;         ///< the most of `bytes` since the last `restart`
};

void restart();
Usage usage();

enum class Failing { once, fromThenOn };

/// Lets the `at`-th allocation from now fail, where the next is the first. `then`, if any, is
/// called just before the first failure.
void failAt(std::size_t at, Failing failing, void (*then)() = nullptr);
/// Ends what `failAt` began.
/// @return whether an allocation has failed
bool endFailing();

}  // namespace facezoo::test::heap
