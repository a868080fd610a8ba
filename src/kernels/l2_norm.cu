#include "kernels/l2_norm.h"

#include "device_code.h"

#include <cmath>

namespace facezoo {
namespace {

using device_code::inOrder;
using device_code::launch;
using device_code::overGrid;

// One thread for each sample.
constexpr int kBlock = 128;

__global__ void kernelL2Normalize_(int count, int dim, const float* in, float* out) {
  overGrid(count, 1, dim, [=](int i, int) {
    float sum = 0.0F;
    inOrder(in + i * dim, dim, [&sum](float value) { sum = fmaf(value, value, sum); });
    out[i] = sqrtf(sum);
  });
}

}  // namespace

void l2Norms(int count, int dim, const float* in, float* out) {
  const int blocks = (count + kBlock - 1) / kBlock;
  launch(kernelL2Normalize_, dim3(static_cast<unsigned>(blocks)), dim3(kBlock), count, dim, in,
         out);
}

}  // namespace facezoo
