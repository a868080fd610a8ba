/// @file
/// The MessagePack types of a weight document.
#pragma once

// Which version of MessagePack's interface is used, and whether with Boost, is the host's choice.
// Only where Boost is not installed is it switched off here.
#if !defined(MSGPACK_NO_BOOST) && !__has_include(<boost/predef/other/endian.h>)
#define MSGPACK_NO_BOOST
#endif
#include <msgpack/object.hpp>
#include <msgpack/unpack.hpp>
