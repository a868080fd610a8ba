// The visitor parser exists only under a later default API version than the library's interface.
#undef MSGPACK_DEFAULT_API_VERSION
#define MSGPACK_DEFAULT_API_VERSION 2

#include "document.h"

#include <msgpack.hpp>

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace facezoo {
namespace {

using msgpack::v1::object;
using msgpack::v1::object_kv;
namespace type = msgpack::v1::type;

constexpr int kDeepestNesting = 32;

/// Visits an object and everything in it, and builds the object itself. If the object is a map and
/// there is room for entries, builds the entries, too.
class Builder : public msgpack::v2::null_visitor {
 public:
  explicit Builder(object& root, object_kv* entries = nullptr) : place_(&root), entry_(entries) {}

  bool visit_nil() { return build(type::NIL); }
  bool visit_boolean(bool /*value*/) { return build(type::BOOLEAN); }
  bool visit_positive_integer(std::uint64_t /*value*/) { return build(type::POSITIVE_INTEGER); }
  bool visit_negative_integer(std::int64_t /*value*/) { return build(type::NEGATIVE_INTEGER); }
  bool visit_float32(float /*value*/) { return build(type::FLOAT32); }
  bool visit_float64(double /*value*/) { return build(type::FLOAT64); }
  bool visit_str(const char* data, std::uint32_t size) { return build(type::STR, size, data); }
  bool visit_bin(const char* data, std::uint32_t size) { return build(type::BIN, size, data); }
  bool visit_ext(const char* data, std::uint32_t size) {
    return build(type::EXT, size - 1, data);  // without the byte of its type
  }
  bool start_array(std::uint32_t /*size*/) {
    build(type::ARRAY);
    return enter();
  }
  bool start_map(std::uint32_t size) {
    build(type::MAP, depth_ == 0 ? size : 0);
    return enter();
  }
  bool start_map_key() {
    if (isAtEntry()) place_ = &entry_->key;
    return true;
  }
  bool start_map_value() {
    if (isAtEntry()) place_ = &entry_->val;
    return true;
  }
  bool end_map_value() {
    if (isAtEntry()) ++entry_;
    return true;
  }
  bool end_array() { return leave(); }
  bool end_map() { return leave(); }
  [[noreturn]] void parse_error(std::size_t /*at*/, std::size_t /*error*/) {
    throw msgpack::v1::parse_error("parse error");
  }
  [[noreturn]] void insufficient_bytes(std::size_t /*at*/, std::size_t /*error*/) {
    throw msgpack::v1::insufficient_bytes("insufficient bytes");
  }

 private:
  bool isAtEntry() const { return depth_ == 1 && entry_ != nullptr; }
  bool build(type::object_type built, std::uint32_t size = 0, const char* data = nullptr) {
    if (place_ != nullptr) {
      place_->type = built;
      place_->via.str = {size, data};  // as binaries, extensions, arrays and maps begin, too
    }
    place_ = nullptr;
    return true;
  }
  bool enter() {
    if (++depth_ > kDeepestNesting) throw msgpack::v1::parse_error("parse error");
    return true;
  }
  bool leave() {
    --depth_;
    return true;
  }

  object* place_;  ///< what the next visit builds; null to build nothing
  object_kv* entry_;
  int depth_ = 0;  ///< how many arrays and maps are open
};

}  // namespace

msgpack::v1::unpacked parseDocument(FileBytes bytes) {
  // The first pass makes sure that every length in the file is backed by bytes, so that the second
  // allocates no memory for a length that the file only claims.
  object root;
  Builder first(root);
  std::size_t end = 0;
  msgpack::v2::parse(bytes.data.get(), bytes.size, end, first);
  shrink(bytes, end);

  auto zone = std::make_unique<msgpack::v1::zone>();
  zone->push_finalizer(std::free, bytes.data.get());
  const char* const data = bytes.data.release();
  object_kv* entries = nullptr;
  if (root.type == type::MAP) {
    const std::size_t count = root.via.map.size;
    entries = static_cast<object_kv*>(zone->allocate_align(count * sizeof(object_kv)));
    std::uninitialized_default_construct_n(entries, count);
  }
  Builder builder(root, entries);
  std::size_t offset = 0;
  msgpack::v2::parse(data, end, offset, builder);
  if (entries != nullptr) root.via.map.ptr = entries;
  return {root, std::move(zone)};
}

}  // namespace facezoo
