/// @file
/// The table of simulated devices.
#pragma once

#include <cstddef>

namespace host_device {

/// The device current on this thread.
std::size_t currentDevice();
/// Its memory in bytes; 0 if the table has no such device.
std::size_t deviceMemory(std::size_t device);

}  // namespace host_device
