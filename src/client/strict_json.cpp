#include "client/strict_json.h"

#include "client/failure.h"

#include <utility>
#include <vector>

namespace facezoo {

namespace {

using nlohmann::json;

class Builder : public nlohmann::json_sax<json> {
 public:
  explicit Builder(std::size_t deepest) : deepest_(deepest) {}

  json take() { return std::move(root_); }

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override { return add(value); }
  bool number_float(number_float_t value, const string_t& /*text*/) override { return add(value); }
  bool string(string_t& value) override { return add(std::move(value)); }
  bool binary(binary_t& /*value*/) override { return false; }  // text has none
  bool start_object(std::size_t /*size*/) override { return open(json::object()); }
  bool end_object() override { return close(); }
  bool start_array(std::size_t /*size*/) override { return open(json::array()); }
  bool end_array() override { return close(); }
  bool key(string_t& name) override {
    if (open_.back()->contains(name))
      throw Failure("expected a name once in a JSON object, found another " + name);
    name_ = std::move(name);
    return true;
  }
  [[noreturn]] bool parse_error(std::size_t at, const std::string& /*token*/,
                                const json::exception& /*error*/) override {
    throw Failure("expected JSON, found something else at its byte " + std::to_string(at));
  }

 private:
  json* place(json value) {
    if (open_.empty()) {
      root_ = std::move(value);
      return &root_;
    }
    json& parent = *open_.back();
    if (parent.is_array()) return &parent.emplace_back(std::move(value));
    return &(parent[name_] = std::move(value));
  }
  bool add(json value) {
    place(std::move(value));
    return true;
  }
  bool open(json value) {
    if (open_.size() == deepest_)
      throw Failure("expected JSON of at most " + std::to_string(deepest_) + " levels, found more");
    open_.push_back(place(std::move(value)));
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }

  std::size_t deepest_;
  json root_;
  std::vector<json*> open_;  // none moves before it is closed: its parent gets nothing until then
  std::string name_;
};

}  // namespace

nlohmann::json parseStrictJson(std::string_view text, std::size_t deepest) {
  // To the parser, a NUL is the end of the text.
  if (const std::size_t nul = text.find('\0'); nul != std::string_view::npos)
    throw Failure("expected JSON, found a NUL at its byte " + std::to_string(nul));
  Builder builder(deepest);
  json::sax_parse(text, &builder);
  return builder.take();
}

}  // namespace facezoo
