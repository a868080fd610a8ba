/// @file
#pragma once

#include <string>
#include <string_view>

/// `text`, which may hold any bytes, as a JSON string. A byte that is not part of UTF-8 becomes a
/// lone surrogate, U+DC80 to U+DCFF, as https://peps.python.org/pep-0383/ has it: Python's
/// os.fsencode makes the bytes of it.
std::string toJsonString(const std::string& text);

/// The bytes that `toJsonString` was given. @throws Failure if `json` is not one JSON string
std::string fromJsonString(std::string_view json);
