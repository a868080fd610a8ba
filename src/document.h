/// @file
/// A pass over a weight file's bytes before they are unpacked.
#pragma once

#include <cstddef>

namespace facezoo {

/// Walks the first MessagePack object in [data, data + size) without building it. The unpacker
/// reserves what a length prefix claims before it has the bytes, so that five bytes can ask for
/// gigabytes; after this pass every length is known to be backed by the file.
///
/// @return the object's length, at most `size`
/// @throws msgpack::v1::insufficient_bytes if the object does not end inside the bytes;
///         msgpack::v1::parse_error if it is not MessagePack or nests deeper than 32 levels
std::size_t checkDocument(const char* data, std::size_t size);

}  // namespace facezoo
