/// @file
/// The MessagePack types of a weight document.
#pragma once

// The host chooses the version of MessagePack's interface, and whether it uses Boost. Boost is
// switched off here only where it is not installed.
#if !defined(MSGPACK_NO_BOOST) && !__has_include(<boost/predef/other/endian.h>)
#define MSGPACK_NO_BOOST
#endif
#include <msgpack/object.hpp>
#include <msgpack/unpack.hpp>
