/// @file
/// Convolution in plain loops, which need no workspace.
#include "kernels.h"

namespace host_device {
namespace {

/// The outputs of an axis that meet the input under one element of the kernel.
struct Outputs {
  int begin, end;
};
Outputs outputsUnder(const Axis& axis, int element) {
  const int offset = axis.pad - element;
  const int first = offset > 0 ? (offset + axis.stride - 1) / axis.stride : 0;
  const int last = axis.input - 1 + offset;
  const int end = last < 0 ? 0 : last / axis.stride + 1;
  return {first, end < axis.output ? end : axis.output};
}

void convolvePlane(const Axis& vertical, const Axis& horizontal, int channels, const float* x,
                   const float* w, float* __restrict y) {
  const Axis v = vertical, h = horizontal;
  const std::size_t outputs = std::size_t{1} * v.output * h.output;
  for (std::size_t i = 0; i < outputs; ++i) y[i] = 0.0f;
  for (int c = 0; c < channels; ++c, x += std::size_t{1} * v.input * h.input) {
    for (int u = 0; u < v.kernel; ++u) {
      const Outputs rows = outputsUnder(v, u);
      for (int t = 0; t < h.kernel; ++t) {
        const Outputs columns = outputsUnder(h, t);
        const float weight = *w++;
        for (int i = rows.begin; i < rows.end; ++i) {
          const std::ptrdiff_t row = std::ptrdiff_t{i} * v.stride - v.pad + u;
          const float* __restrict from = x + row * h.input;
          float* __restrict to = y + std::ptrdiff_t{i} * h.output;
          for (int j = columns.begin; j < columns.end; ++j) {
            to[j] += weight * from[j * h.stride - h.pad + t];
          }
        }
      }
    }
  }
}

}  // namespace

const Loops HOST_DEVICE_SET::loops = {convolvePlane};

}  // namespace host_device
