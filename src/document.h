/// @file
/// Parses the bytes of a weight file into a MessagePack document.
#pragma once

#include "facezoo/message_pack.h"
#include "file_bytes.h"

namespace facezoo {

/// Parses the first MessagePack object of `bytes` and frees the bytes behind it. Keys and payloads
/// stay where they are in `bytes`, which live as long as the document.
///
/// A map gets all its entries, of 48 bytes each. An array or map inside it is left empty, whatever
/// it holds: nothing in there can be a weight, and a value that has one byte in the file would take
/// 24 in memory.
///
/// @throws msgpack::v1::insufficient_bytes if the object does not end inside the bytes;
///         msgpack::v1::parse_error if it is not MessagePack or nests deeper than 32 levels;
///         std::bad_alloc
msgpack::v1::unpacked parseDocument(FileBytes bytes);

}  // namespace facezoo
