/// @file
/// Local response normalization across channels, and batch normalization with given statistics.
#include <cudnn.h>

#include <cmath>

#include "compute.h"
#include "instrumentation.h"

using namespace host_device::detail;

namespace {

constexpr int pieceSize = 512;

struct Factors {
  float alpha, beta, k;
};

/// Normalizes `count` neighbouring elements of one channel; `first` is the same place in the first
/// of the `channels` channels that count, each `plane` elements apart.
HOST_DEVICE_CLONES void normalize(const Factors& factors, const float* __restrict first,
                                  int channels, std::size_t plane, const float* __restrict x,
                                  float* __restrict y, int count) {
  float scale[pieceSize] = {};
  for (int channel = 0; channel < channels; ++channel) {
    const float* __restrict neighbour = first + channel * plane;
    for (int i = 0; i < count; ++i) scale[i] += neighbour[i] * neighbour[i];
  }
  const float alpha = factors.alpha, beta = factors.beta, k = factors.k;
  for (int i = 0; i < count; ++i) scale[i] = k + alpha * scale[i];
  // Two square roots vectorize; powf does not.
  if (beta == 0.75f) {
    for (int i = 0; i < count; ++i) {
      const float root = std::sqrt(scale[i]);
      y[i] = x[i] / (root * std::sqrt(root));
    }
  } else {
    for (int i = 0; i < count; ++i) y[i] = x[i] / std::pow(scale[i], beta);
  }
}

void normalizeTensor(const cudnnLRNStruct& lrn, const cudnnTensorStruct& shape, const float* x,
                     float* y) {
  const Factors factors{static_cast<float>(lrn.alpha / lrn.n), static_cast<float>(lrn.beta),
                        static_cast<float>(lrn.k)};
  const int lookBehind = static_cast<int>((lrn.n - 1) / 2);
  const int lookAhead = static_cast<int>(lrn.n) - lookBehind - 1;
  const std::size_t plane = std::size_t{1} * shape.h * shape.w;
  // Channels innermost: the next channel finds most of its neighbours in the cache.
#pragma omp parallel for schedule(static) collapse(3)
  for (int n = 0; n < shape.n; ++n) {
    for (std::size_t begin = 0; begin < plane; begin += pieceSize) {
      for (int c = 0; c < shape.c; ++c) {
        const int from = std::max(0, c - lookBehind);
        const int to = std::min(shape.c - 1, c + lookAhead);
        const std::size_t image = n * shape.c * plane + begin;
        normalize(factors, x + image + from * plane, to - from + 1, plane, x + image + c * plane,
                  y + image + c * plane,
                  static_cast<int>(std::min<std::size_t>(pieceSize, plane - begin)));
      }
    }
  }
}

/// y = (x - mean) · factor + bias over one channel of one image.
HOST_DEVICE_CLONES void normalizePlane(const float* __restrict x, float* __restrict y,
                                       std::size_t count, float mean, float factor, float bias) {
  for (std::size_t i = 0; i < count; ++i) y[i] = (x[i] - mean) * factor + bias;
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

        const auto at = [](const void* vector, int c) {
          return static_cast<const float*>(vector)[c];
        };
        const std::size_t plane = std::size_t{1} * xDesc->h * xDesc->w;
#pragma omp parallel for schedule(static) collapse(2)
        for (int n = 0; n < xDesc->n; ++n) {
          for (int c = 0; c < xDesc->c; ++c) {
            const auto factor =
                static_cast<float>(at(scale, c) / std::sqrt(at(variance, c) + epsilon));
            const std::size_t start = (std::size_t{1} * n * xDesc->c + c) * plane;
            normalizePlane(static_cast<const float*>(x) + start, static_cast<float*>(y) + start,
                           plane, at(mean, c), factor, at(bias, c));
          }
        }
        return CUDNN_STATUS_SUCCESS;
      });
}
