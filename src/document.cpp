#include "weight_scan.h"

// The visitor parser exists only under a later default API version than the library's interface.
#undef MSGPACK_DEFAULT_API_VERSION
#define MSGPACK_DEFAULT_API_VERSION 2
#include <msgpack.hpp>

#include <cstdint>

namespace facezoo {
namespace {

constexpr int kDeepestNesting = 32;

class Scan : public msgpack::v2::null_visitor {
 public:
  bool start_array(std::uint32_t /*size*/) { return enter(); }
  bool end_array() { return leave(); }
  bool start_map(std::uint32_t /*size*/) { return enter(); }
  bool end_map() { return leave(); }
  [[noreturn]] void parse_error(std::size_t /*at*/, std::size_t /*error*/) {
    throw msgpack::v1::parse_error("parse error");
  }
  [[noreturn]] void insufficient_bytes(std::size_t /*at*/, std::size_t /*error*/) {
    throw msgpack::v1::insufficient_bytes("insufficient bytes");
  }

 private:
  bool enter() {
    if (++depth_ > kDeepestNesting) throw msgpack::v1::parse_error("parse error");
    return true;
  }
  bool leave() {
    --depth_;
    return true;
  }

  int depth_ = 0;
};

}  // namespace

std::size_t checkDocument(const char* data, std::size_t size) {
  Scan scan;
  std::size_t offset = 0;
  msgpack::v2::parse(data, size, offset, scan);
  return offset;
}

}  // namespace facezoo
