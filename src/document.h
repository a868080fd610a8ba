/// @file
/// From a weight file's bytes to its MessagePack document.
#pragma once

#include "facezoo/message_pack.h"
#include "file_bytes.h"

namespace facezoo {

/// Parses the first MessagePack object of `bytes`, and gives back what lies behind it. Keys and
/// payloads stay in `bytes`, which live as long as the document.
///
/// A map has all its entries, of 48 bytes each. An array or map inside it is empty, whatever it
/// holds: nothing there can be a weight, and each value would take 24 bytes for as little as one in
/// the file.
///
/// @throws msgpack::v1::insufficient_bytes if the object does not end inside the bytes;
///         msgpack::v1::parse_error if it is not MessagePack or nests deeper than 32 levels;
///         std::bad_alloc
msgpack::v1::unpacked parseDocument(FileBytes bytes);

}  // namespace facezoo
