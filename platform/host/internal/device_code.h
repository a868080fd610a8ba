/// @file
/// How a unit of device code runs on the host platform: a kernel is an ordinary function, a launch
/// calls it once, and `overGrid` inside it visits the index space that the grid covers.
/// platform/cuda/internal/device_code.h offers the same two functions for nvcc.
#pragma once

#include <cuda_runtime.h>

#include <algorithm>
#include <tuple>
#include <utility>

namespace facezoo {

/// Grid and block of the launch that is running on this thread.
struct LaunchGeometry {
  dim3 grid, block;
};
const LaunchGeometry& currentLaunch();

namespace detail {
template <class... P, std::size_t... I>
void callKernel(void** arguments, std::index_sequence<I...>) {
  using Kernel = void (*)(P...);
  (*static_cast<Kernel*>(arguments[0]))(*static_cast<P*>(arguments[I + 1])...);
}
template <class... P>
void kernelEntry(void** arguments) {
  callKernel<P...>(arguments, std::index_sequence_for<P...>{});
}
}  // namespace detail

/// Launches `kernel` on the default stream; as on a device, the status is not looked at.
template <class... P, class... A>
void launch(void (*kernel)(P...), dim3 grid, dim3 block, A... values) {
  std::tuple<P...> parameters(values...);
  std::apply(
      [&](P&... parameter) {
        void* arguments[] = {&kernel, &parameter...};
        cudaLaunchKernel(reinterpret_cast<const void*>(&detail::kernelEntry<P...>), grid, block,
                         arguments, 0, nullptr);
      },
      parameters);
}

/// Calls body(x, y) for every 0 <= x < width, 0 <= y < height that the running launch covers.
/// The calls must be independent of each other.
template <class Body>
void overGrid(int width, int height, const Body& body) {
  const LaunchGeometry& launch = currentLaunch();
  const int columns = std::min(width, static_cast<int>(launch.grid.x * launch.block.x));
  const int rows = std::min(height, static_cast<int>(launch.grid.y * launch.block.y));
#pragma omp parallel for schedule(static)
  for (int y = 0; y < rows; ++y) {
#pragma omp simd
    for (int x = 0; x < columns; ++x) body(x, y);
  }
}

}  // namespace facezoo
