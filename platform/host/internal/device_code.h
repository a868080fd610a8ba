/// @file
/// How a unit of device code runs on the host platform: a kernel is an ordinary function, a launch
/// calls it once, `overGrid` inside it visits the index space that the grid covers, and `inOrder`
/// visits values one after the other. platform/cuda/internal/device_code.h offers the same for
/// nvcc.
#pragma once

#include <cuda_runtime.h>
#include <host_device.h>

#include <algorithm>
#include <cstdint>
#include <tuple>
#include <utility>

#include "team.h"

namespace host_device {

/// Grid and block of the launch that is running on this thread.
struct LaunchGeometry {
  dim3 grid, block;
};
const LaunchGeometry& currentLaunch();

}  // namespace host_device

namespace device_code {

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

/// The calls of one piece of a row, for each instruction set; `body` becomes part of each.
template <class Body>
[[gnu::always_inline]] inline void visit(const Body& body, int y, int begin, int end) {
#pragma omp simd
  for (int x = begin; x < end; ++x) body(x, y);
}
template <class Body>
void visitBaseline(const Body& body, int y, int begin, int end) {
  visit<Body>(body, y, begin, end);
}
#ifdef __x86_64__
template <class Body>
[[gnu::target("avx2,fma")]] void visitAvx2(const Body& body, int y, int begin, int end) {
  visit<Body>(body, y, begin, end);
}
template <class Body>
[[gnu::target("avx512f,avx512bw")]] void visitAvx512(const Body& body, int y, int begin, int end) {
  visit<Body>(body, y, begin, end);
}
#endif

template <class Body>
auto visitIn(host_device::InstructionSet set) {
#ifdef __x86_64__
  if (set == host_device::InstructionSet::avx512) return visitAvx512<Body>;
  if (set == host_device::InstructionSet::avx2) return visitAvx2<Body>;
#endif
  static_cast<void>(set);
  return visitBaseline<Body>;
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
/// The calls must be independent of each other; each handles about `work` values.
template <class Body>
void overGrid(int width, int height, int work, const Body& body) {
  constexpr int pieceWork = 8192;
  const host_device::LaunchGeometry& launch = host_device::currentLaunch();
  const int columns = std::min(width, static_cast<int>(launch.grid.x * launch.block.x));
  const int rows = std::min(height, static_cast<int>(launch.grid.y * launch.block.y));
  const int piece = std::max(1, pieceWork / std::max(1, work));
  const int pieces = (columns + piece - 1) / piece;
  const auto visit = detail::visitIn<Body>(host_device::instructionSet());
  const bool pays = std::int64_t{1} * columns * rows >= 2 * piece;
  host_device::share(pays ? host_device::teamSize() : 1, [&](const host_device::Member& member) {
    const std::size_t count = std::size_t{1} * rows * pieces;
    const host_device::Range own = host_device::part(count, member.index, member.count);
    for (std::size_t at = own.begin; at < own.end; ++at) {
      const int y = static_cast<int>(at / pieces), i = static_cast<int>(at % pieces);
      visit(body, y, i * piece, std::min(columns, (i + 1) * piece));
    }
  });
}

/// Calls body(in[i]) for i = 0, 1, ..., count - 1.
template <class Body>
[[gnu::always_inline]] inline void inOrder(const float* in, int count, const Body& body) {
  for (int i = 0; i < count; ++i) body(in[i]);
}

}  // namespace device_code
