#include "report.h"

#include "facezoo/listener.h"

#include <algorithm>
#include <cstdarg>
#include <utility>

namespace facezoo {
namespace {

Listener* current = nullptr;

}  // namespace

Listener::Listener() : before_(std::exchange(current, this)) {}
Listener::~Listener() { current = before_; }
void Listener::onLine(const char* /*line*/) noexcept {}
void Listener::onDocument(const msgpack::v1::object& /*root*/) {}

Listener* listener() { return current; }

void report(std::FILE* stream, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  if (current == nullptr) {
    std::vfprintf(stream, format, arguments);
  } else {
    char line[1025];
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    line[std::clamp(length - 1, 0, static_cast<int>(sizeof line) - 2)] = '\0';  // the line's end
    current->onLine(line);
  }
  va_end(arguments);
}

}  // namespace facezoo
