/// @file
/// How many threads the calls of the CPU platform may use.
#pragma once

namespace host_device {

/// The threads, this one included, that a parallel region of the calling thread asks for: as many
/// as OpenMP's settings say, but no more than there are processors, and no more than could be
/// started, since OpenMP's runtime ends the process where it cannot start a thread. Only one in a
/// process that was forked by one of several threads.
int teamSize();

}  // namespace host_device
