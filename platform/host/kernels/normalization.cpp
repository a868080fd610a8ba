/// @file
/// Local response normalization across channels, and batch normalization with given statistics.
#include "kernels.h"

namespace host_device {
namespace {

/// t^-0.75 for t > 0, within a few roundings: Newton's method for the inverse fourth root, from
/// what the exponent alone says of it. Square roots and a division take several times as long, and
/// powf does not vectorize.
[[gnu::always_inline]] inline float inverseThreeFourthsPower(float t) {
  int bits;
  __builtin_memcpy(&bits, &t, sizeof t);
  bits = 0x4F58CAE5 - (bits >> 2);
  float root;
  __builtin_memcpy(&root, &bits, sizeof t);
  for (int i = 0; i < 3; ++i) {
    const float square = root * root;
    root += root * (0.25f - 0.25f * t * square * square);
  }
  const float power = root * root * root;
  return t > __FLT_MAX__ ? 0.0f : power;
}

/// @param Channels those that count, known to the compiler so that it can keep their sum
template <int Channels>
void usual(const LrnFactors& factors, const LrnPiece& piece) {
  const float alpha = factors.alpha, k = factors.k;
  const float* __restrict first = piece.first, * __restrict x = piece.x;
  float* __restrict y = piece.y;
  const std::size_t plane = piece.plane;
  for (int i = 0; i < piece.size; ++i) {
    float sum = 0.0f;
    for (int c = 0; c < Channels; ++c) sum += first[c * plane + i] * first[c * plane + i];
    y[i] = x[i] * inverseThreeFourthsPower(k + alpha * sum);
  }
}

void acrossChannels(const LrnFactors& factors, const LrnPiece& piece) {
  const bool isUsual = factors.beta == 0.75f && factors.alpha >= 0;
  switch (isUsual ? piece.channels : 0) {
    case 3:
      return usual<3>(factors, piece);
    case 4:
      return usual<4>(factors, piece);
    case 5:
      return usual<5>(factors, piece);
    default:
      break;
  }
  for (int i = 0; i < piece.size; ++i) {
    float sum = 0.0f;
    for (int c = 0; c < piece.channels; ++c) {
      const float neighbour = piece.first[c * piece.plane + i];
      sum += neighbour * neighbour;
    }
    piece.y[i] = piece.x[i] / __builtin_powf(factors.k + factors.alpha * sum, factors.beta);
  }
}

void ofChannels(const Statistics& of, int images, std::size_t channels, std::size_t plane,
                std::size_t begin, std::size_t end, const float* x, float* y) {
  constexpr std::size_t most = 64;
  float factor[most];
  for (; begin < end; begin += most) {
    const std::size_t count = end - begin < most ? end - begin : most;
    const float *scale = of.scale + begin, *variance = of.variance + begin;
    // All of them at once: a square root in double precision takes as long as a small plane.
    for (std::size_t c = 0; c < count; ++c) {
      factor[c] = static_cast<float>(scale[c] / __builtin_sqrt(variance[c] + of.epsilon));
    }
    for (int n = 0; n < images; ++n) {
      const std::size_t start = (n * channels + begin) * plane;
      const float* from = x + start;
      float* to = y + start;
      for (std::size_t c = 0; c < count; ++c, from += plane, to += plane) {
        const float mean = of.mean[begin + c], bias = of.bias[begin + c], by = factor[c];
        for (std::size_t i = 0; i < plane; ++i) to[i] = (from[i] - mean) * by + bias;
      }
    }
  }
}

}  // namespace

const Normalization HOST_DEVICE_SET::normalization = {acrossChannels, ofChannels};

}  // namespace host_device
