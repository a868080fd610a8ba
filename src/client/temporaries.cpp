#include "client/temporaries.h"

#include "client/failure.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>

namespace facezoo {

namespace {

/// Names of temporary files; the empty ones are free.
std::array<std::array<char, PATH_MAX>, 4> temporaries;

}  // namespace

char* noteTemporary(const std::string& name) {
  for (auto& slot : temporaries) {
    if (slot[0] != '\0') continue;
    if (name.size() >= slot.size()) throw Failure(name + ": the name is too long");
    std::copy(name.begin() + 1, name.end(), slot.begin() + 1);
    slot[name.size()] = '\0';
    slot[0] = name[0];  // last, so that a handler sees all of it or nothing
    return slot.data();
  }
  throw Failure(name + ": too many files are being written");
}

void removeTemporaries() noexcept {
  for (const auto& name : temporaries)
    if (name[0] != '\0') unlink(name.data());
}

}  // namespace facezoo
