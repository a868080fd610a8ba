/// @file
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <string_view>

namespace facezoo {

/// The document that `text` holds. Refuses what the parser by itself would accept, but other
/// readers understand differently or at great cost: a name twice in an object, a NUL, more than
/// `deepest` levels of nesting.
/// @throws Failure that does not name the text
nlohmann::json parseStrictJson(std::string_view text, std::size_t deepest);

}  // namespace facezoo
