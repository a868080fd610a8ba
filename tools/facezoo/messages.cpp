#include "messages.h"

#include <unistd.h>
#include <utf8.h>

#include <cerrno>
#include <cstddef>
#include <iterator>
#include <string_view>

namespace {

/// Whether a terminal may obey `c`: control characters, line separators, marks of the direction of
/// writing.
bool steersTerminal(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x2028 && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

/// Writes to standard error, of whose failure nobody could be told.
void writeLine(const char* text, std::size_t size) {
  while (size > 0) {
    const ssize_t count = write(STDERR_FILENO, text, size);
    if (count < 0 && errno != EINTR) return;
    if (count < 0) continue;
    text += count;
    size -= static_cast<std::size_t>(count);
  }
}

}  // namespace

std::string printable(const std::string& text) {
  std::string valid, shown;
  utf8::replace_invalid(text.begin(), text.end(), std::back_inserter(valid), U'?');
  for (auto rest = valid.begin(); rest != valid.end();) {
    const char32_t c = utf8::unchecked::next(rest);
    utf8::unchecked::append(steersTerminal(c) ? U'?' : c, std::back_inserter(shown));
  }
  return shown;
}

void warn(const std::string& line) noexcept {
  try {
    // A progress line may stand where the cursor is.
    const char* const erase = isatty(STDERR_FILENO) != 0 ? "\r\x1b[K" : "";
    const std::string text = std::string(erase) + "facezoo: " + printable(line) + '\n';
    writeLine(text.data(), text.size());
  } catch (...) {
    constexpr std::string_view text = "facezoo: out of memory\n";
    writeLine(text.data(), text.size());
  }
}
