/// @file
/// Element-wise work and softmax.
#include "kernels.h"

namespace host_device {
namespace {

// Not std::max: the operand that a comparison with NaN picks is the whole difference between the
// two functions.
void rectifyKeepingNan(const float* x, float* y, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) y[i] = x[i] < 0.0f ? 0.0f : x[i];
}

void rectifyDroppingNan(const float* x, float* y, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) y[i] = x[i] > 0.0f ? x[i] : 0.0f;
}

void add(std::size_t count, bool standsStill, float alpha, const float* __restrict a, float beta,
         float* __restrict c) {
  // What c holds must not count when beta is 0, not even a NaN.
  if (beta == 0.0f) {
    for (std::size_t i = 0; i < count; ++i) c[i] = 0.0f;
  }
  if (standsStill) {
    for (std::size_t i = 0; i < count; ++i) c[i] = alpha * a[0] + beta * c[i];
  } else {
    for (std::size_t i = 0; i < count; ++i) c[i] = alpha * a[i] + beta * c[i];
  }
}

void softmax(int channels, std::size_t plane, const float* x, float* y) {
  const std::size_t end = channels * plane;
  float sum = 0.0f;
  for (std::size_t i = 0; i < end; i += plane) sum += y[i] = __builtin_expf(x[i]);
  for (std::size_t i = 0; i < end; i += plane) y[i] /= sum;
}

}  // namespace

const Elements HOST_DEVICE_SET::elements = {rectifyKeepingNan, rectifyDroppingNan, add, softmax};

}  // namespace host_device
