#include "failure.h"

#include "check.h"
#include "facezoo/errors.h"

#include <unistd.h>
#include <utf8.h>

#include <cerrno>
#include <iterator>
#include <new>
#include <string_view>

namespace {

/// Control characters, separators of lines, and what turns the direction of writing around.
bool steersTerminal(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x2028 && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}

std::string describe() {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return "out of memory";
  } catch (const std::exception& error) {
    return error.what();
  } catch (GPUError) {
    return "no usable CUDA device";
  } catch (NetworkError error) {
    return error == WEIGHT_FILE_NOT_FOUND ? "the weight file cannot be read"
                                          : "the weight file does not fit the network";
  } catch (TensorError) {
    return "the network's tensors do not fit its pool of device memory";
  } catch (cudaError status) {
    return std::string(cudaGetErrorString(status)) + " (CUDA error " + std::to_string(status) + ")";
  } catch (cudnnStatus_t status) {
    return std::string(cudnnGetErrorString(status)) + " (cuDNN)";
  } catch (cublasStatus_t status) {
    return "cuBLAS status " + std::to_string(status);
  } catch (...) {
    return "unknown failure";
  }
}

/// All of it, unless nothing takes it.
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

std::string describeException() noexcept {
  try {
    return describe();
  } catch (...) {
    return "out of memory";  // which a string holds without any
  }
}

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
