/// @file
/// MessagePack's types, of which a weight document is made.
#pragma once

// A host says itself which version of MessagePack's interface it uses and whether with Boost; only
// where there is no Boost must MessagePack do without.
#if !defined(MSGPACK_NO_BOOST) && !__has_include(<boost/predef/other/endian.h>)
#define MSGPACK_NO_BOOST
#endif
#include <msgpack/object.hpp>
#include <msgpack/unpack.hpp>
