/// @file
/// The heap of the whole process, watched from the executable that this is part of. Under a
/// sanitizer, whose own heap must see every block, only what C++ code allocates passes here.
#pragma once

#include <cstddef>

namespace facezoo::test::heap {

/// What has been taken from the heap.
struct Usage {
  std::size_t allocations;  ///< since the last `restart`
  std::size_t fromOutside;  ///< of them, those that no code of this executable asked for
  const char* firstCaller;  ///< of these, or null
  std::size_t blocks;       ///< live
  std::size_t bytes;        ///< in them, with what the heap rounds up
  std::size_t peak;         ///< most of these since the last `restart`
};

void restart();
Usage usage();

enum class Failing { once, fromThenOn };

/// Lets the `at`-th allocation fail, counted from now, from 1. `then`, if any, is called where it
/// fails first.
void failAt(std::size_t at, Failing failing, void (*then)() = nullptr);
/// Ends that. Whether an allocation has failed.
bool endFailing();

}  // namespace facezoo::test::heap
