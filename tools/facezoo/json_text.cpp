#include "json_text.h"

#include "client/failure.h"

#include <utf8.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>

using namespace facezoo;

namespace {

std::string parsePiece(const std::string& json) {
  const nlohmann::json value = nlohmann::json::parse(json, nullptr, false);
  if (!value.is_string()) throw Failure("expected a JSON string");
  return value.get<std::string>();
}

}  // namespace

std::string toJsonString(const std::string& text) {
  std::string json = "\"";
  for (auto rest = text.begin(); rest != text.end();) {
    const auto wrong = utf8::find_invalid(rest, text.end());
    const std::string quoted = nlohmann::json(std::string(rest, wrong)).dump();
    json.append(quoted, 1, quoted.size() - 2);
    rest = wrong;
    if (wrong == text.end()) break;
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\udc%02x", static_cast<unsigned char>(*rest++));
    json += escape;
  }
  return json + '"';
}

// The JSON parser refuses lone surrogates, so that it is given only the text between them.
std::string fromJsonString(std::string_view json) {
  std::string text, piece;
  for (std::size_t i = 0; i < json.size();) {
    const std::string escape(json.substr(i, 6));
    const bool isUnicode = escape.size() == 6 && escape[0] == '\\' && escape[1] == 'u';
    char* end = nullptr;
    const unsigned long code = isUnicode ? std::strtoul(&escape[2], &end, 16) : 0;
    if (code >= 0xDC80 && code <= 0xDCFF && *end == '\0') {
      text += parsePiece(piece + '"');
      text += static_cast<char>(code & 0xFF);
      piece = "\"";
      i += escape.size();
      continue;
    }
    const bool isPair = code >= 0xD800 && code <= 0xDBFF;
    const std::size_t length = isPair ? 12 : json[i] == '\\' ? 2 : 1;
    piece += json.substr(i, length);
    i += length;
  }
  return text + parsePiece(piece);
}
