/// @file
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <string_view>

namespace facezoo {

/// The document that `text` holds. What the parser alone would take, though readers disagree about
/// it or it costs more than the text is worth, is refused: a name that comes twice in an object, a
/// NUL, nesting deeper than `deepest` levels.
/// @throws Failure that does not name the text
nlohmann::json parseStrictJson(std::string_view text, std::size_t deepest);

}  // namespace facezoo
