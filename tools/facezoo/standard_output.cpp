#include "standard_output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <streambuf>
#include <string>

using namespace facezoo;

namespace {

[[noreturn]] void refuse() { throwSystemFailure("standard output: cannot be written"); }

}  // namespace

class StandardOutput::Buffer : public std::streambuf {
 public:
  Buffer() { setp(bytes_, bytes_ + sizeof bytes_); }

 protected:
  int_type overflow(int_type c) override {
    sync();
    return traits_type::eq_int_type(c, traits_type::eof()) ? traits_type::not_eof(c)
                                                           : sputc(traits_type::to_char_type(c));
  }
  int sync() override {
    const char* next = pbase();
    const char* const end = pptr();
    setp(bytes_, bytes_ + sizeof bytes_);  // what fails is not tried again
    while (next < end) next += writeSome(next, end - next);
    return 0;
  }

 private:
  static std::size_t writeSome(const char* bytes, std::size_t count) {
    while (true) {
      const ssize_t written = write(STDOUT_FILENO, bytes, count);
      if (written >= 0) return written;
      if (errno == EAGAIN) {
        pollfd output = {STDOUT_FILENO, POLLOUT, 0};
        poll(&output, 1, -1);
      } else if (errno == EPIPE) {
        throw ReaderGone();
      } else if (errno != EINTR) {
        refuse();
      }
    }
  }

  char bytes_[1 << 14];
};

StandardOutput::StandardOutput()
    : buffer_(std::make_unique<Buffer>()), before_(std::cout.rdbuf(buffer_.get())) {
  std::cout.exceptions(std::ios::badbit);  // passes on what the buffer throws
}

StandardOutput::~StandardOutput() {
  std::cout.exceptions(std::ios::goodbit);
  std::cout.rdbuf(before_);
}

void StandardOutput::finish() {
  std::cout.flush();
  // Where a file's data are sent elsewhere, only the end of a descriptor tells what became of them.
  const int copy = dup(STDOUT_FILENO);
  if (copy >= 0 && close(copy) != 0 && errno != EINTR) refuse();
}

void print(const char* format, ...) {
  va_list arguments, again;
  va_start(arguments, format);
  va_copy(again, arguments);
  std::string text(std::vsnprintf(nullptr, 0, format, arguments), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  va_end(arguments);
  std::cout << text;
}
