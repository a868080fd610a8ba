/// @file
/// Local response normalization across channels, and batch normalization with given statistics.
#include <cudnn.h>

#include <algorithm>

#include "instrumentation.h"
#include "kernels/kernels.h"
#include "kernels/parallel.h"
#include "operands.h"

using namespace host_device;

namespace {

void normalizeTensor(const cudnnLRNStruct& lrn, const cudnnTensorStruct& shape, const float* x,
                     float* y) {
  const LrnFactors factors{static_cast<float>(lrn.alpha / lrn.n), static_cast<float>(lrn.beta),
                           static_cast<float>(lrn.k)};
  const int lookBehind = static_cast<int>((lrn.n - 1) / 2);
  const int lookAhead = static_cast<int>(lrn.n) - lookBehind - 1;
  const std::size_t plane = std::size_t{1} * shape.h * shape.w;
  const auto normalize = kernels().normalization.acrossChannels;
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
        const std::size_t plane = std::size_t{1} * xDesc->h * xDesc->w;
        forRanges(xDesc->c, plane * xDesc->n, [&](std::size_t begin, std::size_t end) {
          kernels().normalization.ofChannels(statistics, xDesc->n, xDesc->c, plane, begin, end,
                                             static_cast<const float*>(x), static_cast<float*>(y));
        });
        return CUDNN_STATUS_SUCCESS;
      });
}
