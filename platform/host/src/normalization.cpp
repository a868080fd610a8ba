/// @file
/// Local response normalization across channels, and batch normalization with given statistics.
#include <cudnn.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "compute.h"
#include "instrumentation.h"

using namespace host_device::detail;

namespace {

struct Factors {
  float alpha, beta, k;
};

/// t^-0.75 for t > 0, within a few roundings: Newton's method for the inverse fourth root, from
/// what the exponent alone says of it. Square roots and a division take several times as long, and
/// powf does not vectorize.
HOST_DEVICE_INLINE float inverseThreeFourthsPower(float t) {
  std::int32_t bits;
  std::memcpy(&bits, &t, sizeof t);
  bits = 0x4F58CAE5 - (bits >> 2);
  float root;
  std::memcpy(&root, &bits, sizeof t);
  for (int i = 0; i < 3; ++i) {
    const float square = root * root;
    root += root * (0.25f - 0.25f * t * square * square);
  }
  return t > std::numeric_limits<float>::max() ? 0.0f : root * root * root;
}

/// Neighbouring elements of one channel, and the same places in all channels that count for it.
struct Piece {
  const float* first;  ///< in the first of the channels that count
  int channels;
  std::size_t plane;  ///< distance between them
  const float* x;
  float* y;
  int size;
};

/// @param Channels those that count, known to the compiler so that it can keep their sum
template <int Channels>
HOST_DEVICE_INLINE void normalizeUsual(const Factors& factors, const Piece& piece) {
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

HOST_DEVICE_CLONES void normalize(const Factors& factors, const Piece& piece) {
  const bool usual = factors.beta == 0.75f && factors.alpha >= 0;
  switch (usual ? piece.channels : 0) {
    case 3:
      return normalizeUsual<3>(factors, piece);
    case 4:
      return normalizeUsual<4>(factors, piece);
    case 5:
      return normalizeUsual<5>(factors, piece);
    default:
      break;
  }
  for (int i = 0; i < piece.size; ++i) {
    float sum = 0.0f;
    for (int c = 0; c < piece.channels; ++c) {
      const float neighbour = piece.first[c * piece.plane + i];
      sum += neighbour * neighbour;
    }
    piece.y[i] = piece.x[i] / std::pow(factors.k + factors.alpha * sum, factors.beta);
  }
}

void normalizeTensor(const cudnnLRNStruct& lrn, const cudnnTensorStruct& shape, const float* x,
                     float* y) {
  const Factors factors{static_cast<float>(lrn.alpha / lrn.n), static_cast<float>(lrn.beta),
                        static_cast<float>(lrn.k)};
  const int lookBehind = static_cast<int>((lrn.n - 1) / 2);
  const int lookAhead = static_cast<int>(lrn.n) - lookBehind - 1;
  const std::size_t plane = std::size_t{1} * shape.h * shape.w;
  constexpr std::size_t pieceSize = 512;
  const std::size_t pieces = dividedUp(plane, pieceSize);
  forRanges(shape.n * pieces, pieceSize * shape.c, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      const std::size_t start = i % pieces * pieceSize;
      const std::size_t image = i / pieces * shape.c * plane + start;
      const int size = static_cast<int>(std::min(pieceSize, plane - start));
      // The next channel finds most of its neighbours in the cache.
      for (int c = 0; c < shape.c; ++c) {
        const int from = std::max(0, c - lookBehind);
        const int to = std::min(shape.c - 1, c + lookAhead);
        const std::size_t here = image + c * plane;
        normalize(factors,
                  {x + image + from * plane, to - from + 1, plane, x + here, y + here, size});
      }
    }
  });
}

/// What batch normalization knows of each channel, and what it adds to the variance.
struct Statistics {
  const float *scale, *bias, *mean, *variance;
  double epsilon;
};

/// y = scale · (x - mean) / sqrt(variance + epsilon) + bias for the channels from `begin` to `end`.
HOST_DEVICE_CLONES void normalizeChannels(const Statistics& of, const cudnnTensorStruct& shape,
                                          std::size_t begin, std::size_t end, const float* x,
                                          float* y) {
  const std::size_t plane = std::size_t{1} * shape.h * shape.w;
  constexpr std::size_t most = 64;
  float factor[most];
  for (; begin < end; begin += most) {
    const std::size_t count = std::min(most, end - begin);
    const float *scale = of.scale + begin, *variance = of.variance + begin;
    // All of them at once: a square root in double precision takes as long as a small plane.
    for (std::size_t c = 0; c < count; ++c) {
      factor[c] = static_cast<float>(scale[c] / std::sqrt(variance[c] + of.epsilon));
    }
    for (int n = 0; n < shape.n; ++n) {
      const std::size_t start = (std::size_t{1} * n * shape.c + begin) * plane;
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

cudnnStatus_t cudnnLRNCrossChannelForward(cudnnHandle_t handle, cudnnLRNDescriptor_t lrn,
                                          cudnnLRNMode_t mode, const void* alpha,
                                          cudnnTensorDescriptor_t xDesc, const void* x,
                                          const void* beta, cudnnTensorDescriptor_t yDesc,
                                          void* y) {
  return enter(
      "cudnnLRNCrossChannelForward", {mode, address(x), address(y)}, [&]() -> cudnnStatus_t {
        if (!allLive(handle, lrn) || lrn->n == 0 || !areMapped(xDesc, x, yDesc, y) ||
            !sameShape(*xDesc, *yDesc) || mode != CUDNN_LRN_CROSS_CHANNEL_DIM1 ||
            overlap(x, xDesc->bytes(), y, yDesc->bytes())) {
          return CUDNN_STATUS_BAD_PARAM;
        }
        if (const auto status = checkPlain(alpha, beta)) return status;
        writeDevice(y, yDesc->bytes());
        normalizeTensor(*lrn, *xDesc, static_cast<const float*>(x), static_cast<float*>(y));
        return CUDNN_STATUS_SUCCESS;
      });
}

cudnnStatus_t cudnnDeriveBNTensorDescriptor(cudnnTensorDescriptor_t derived,
                                            cudnnTensorDescriptor_t x, cudnnBatchNormMode_t mode) {
  return enter("cudnnDeriveBNTensorDescriptor", {mode}, [&]() -> cudnnStatus_t {
    if (!allLive(derived) || !isSet(x)) return CUDNN_STATUS_BAD_PARAM;
    if (mode != CUDNN_BATCHNORM_SPATIAL) return CUDNN_STATUS_NOT_SUPPORTED;
    derived->n = derived->h = derived->w = 1;
    derived->c = x->c;
    return CUDNN_STATUS_SUCCESS;
  });
}

cudnnStatus_t cudnnBatchNormalizationForwardInference(
    cudnnHandle_t handle, cudnnBatchNormMode_t mode, const void* alpha, const void* beta,
    cudnnTensorDescriptor_t xDesc, const void* x, cudnnTensorDescriptor_t yDesc, void* y,
    cudnnTensorDescriptor_t parameters, const void* scale, const void* bias, const void* mean,
    const void* variance, double epsilon) {
  return enter(
      "cudnnBatchNormalizationForwardInference", {mode, address(x), address(y)},
      [&]() -> cudnnStatus_t {
        constexpr double kLeastEpsilon = 1e-5;  // the real library's limit
        if (!allLive(handle) || !areMapped(xDesc, x, yDesc, y) || !sameShape(*xDesc, *yDesc) ||
            (x != y && overlap(x, xDesc->bytes(), y, yDesc->bytes())) || !isSet(parameters) ||
            parameters->c != xDesc->c || parameters->elements() != std::size_t{1} * xDesc->c ||
            epsilon < kLeastEpsilon) {
          return CUDNN_STATUS_BAD_PARAM;
        }
        for (const void* vector : {scale, bias, mean, variance}) {
          if (!isDevice(vector, parameters->bytes())) return CUDNN_STATUS_BAD_PARAM;
        }
        if (const auto status = checkPlain(alpha, beta)) return status;
        if (mode != CUDNN_BATCHNORM_SPATIAL) return CUDNN_STATUS_NOT_SUPPORTED;
        writeDevice(y, yDesc->bytes());

        const Statistics statistics{
            static_cast<const float*>(scale), static_cast<const float*>(bias),
            static_cast<const float*>(mean), static_cast<const float*>(variance), epsilon};
        forRanges(xDesc->c, xDesc->elements() / xDesc->c, [&](std::size_t begin, std::size_t end) {
          normalizeChannels(statistics, *xDesc, begin, end, static_cast<const float*>(x),
                            static_cast<float*>(y));
        });
        return CUDNN_STATUS_SUCCESS;
      });
}
