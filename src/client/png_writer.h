/// @file
#pragma once

#include "client/images.h"

#include <cstddef>
#include <ostream>
#include <string>

namespace facezoo {

/// Writes a picture of red, green and blue as a PNG file, row by row.
/// @param name of the file, for messages
/// @throws Failure; what `out` throws
void writePng(const Picture& picture, const std::string& name, std::ostream& out);

/// How many bytes that takes beside the picture, whose width it depends on.
std::size_t pngWritingMemory(const Picture& picture);

}  // namespace facezoo
