/// @file
/// How a unit of device code runs under nvcc: `launch` starts a kernel on the default stream,
/// `overGrid` gives each thread its element and `inOrder` visits values one after the other.
/// platform/host/internal/device_code.h offers the same.
/// Keeps to C++14 for the oldest supported nvcc.
#pragma once

#include "read_ahead.h"

#include <cuda_runtime.h>

namespace device_code {

using read_ahead::inOrder;

/// Launches `kernel` on the default stream; the status is not looked at, it surfaces in the next
/// checked call.
template <class... P, class... A>
void launch(void (*kernel)(P...), dim3 grid, dim3 block, A... values) {
  kernel<<<grid, block>>>(static_cast<P>(values)...);
}

/// Calls body(x, y) with this thread's column and row where they lie inside width × height. How
/// much work a call is matters to the host only.
template <class Body>
__device__ void overGrid(int width, int height, int /*work*/, const Body& body) {
  const int x = static_cast<int>(blockIdx.x * blockDim.x + threadIdx.x);
  const int y = static_cast<int>(blockIdx.y * blockDim.y + threadIdx.y);
  if (x < width && y < height) body(x, y);
}

}  // namespace device_code
