/// @file
/// Element-wise calls and softmax.
#include <cudnn.h>

#include <cmath>

#include "compute.h"
#include "instrumentation.h"

using namespace host_device::detail;

namespace {

// Not std::max: the operand that a comparison with NaN picks is the whole difference between the
// two functions.
HOST_DEVICE_CLONES void rectifyKeepingNan(const float* x, float* y, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) y[i] = x[i] < 0.0f ? 0.0f : x[i];
}

HOST_DEVICE_CLONES void rectifyDroppingNan(const float* x, float* y, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) y[i] = x[i] > 0.0f ? x[i] : 0.0f;
}

void softmax(const cudnnTensorStruct& shape, const float* x, float* y) {
  const std::size_t plane = std::size_t{1} * shape.h * shape.w;
  const std::size_t image = plane * shape.c;
  forRanges(shape.n * plane, shape.c, [&](std::size_t first, std::size_t last) {
    for (; first < last; ++first) {
      const std::size_t begin = first / plane * image + first % plane, end = begin + image;
      float sum = 0.0f;
      for (std::size_t i = begin; i < end; i += plane) sum += y[i] = std::exp(x[i]);
      for (std::size_t i = begin; i < end; i += plane) y[i] /= sum;
    }
  });
}

/// c = alpha · a + beta · c over a run of c in which a either advances with c or stands still.
struct Run {
  std::size_t count = 1;
  bool standsStill = false;
};

HOST_DEVICE_CLONES void addRun(Run run, float alpha, const float* __restrict a, float beta,
                               float* __restrict c) {
  // What c holds must not count when beta is 0, not even a NaN.
  if (beta == 0.0f) std::fill_n(c, run.count, 0.0f);
  if (run.standsStill) {
    for (std::size_t i = 0; i < run.count; ++i) c[i] = alpha * a[0] + beta * c[i];
  } else {
    for (std::size_t i = 0; i < run.count; ++i) c[i] = alpha * a[i] + beta * c[i];
  }
}

void addTensor(float alpha, const cudnnTensorStruct& aShape, const float* a, float beta,
               const cudnnTensorStruct& cShape, float* c) {
  const int aExtents[] = {aShape.n, aShape.c, aShape.h, aShape.w};
  const int cExtents[] = {cShape.n, cShape.c, cShape.h, cShape.w};

  // The longest run: the innermost dimensions up to where a changes between advancing and not.
  Run run;
  int outer = 4;
  for (; outer > 0; --outer) {
    const int extent = cExtents[outer - 1];
    const bool still = aExtents[outer - 1] != extent;
    if (run.count > 1 && extent > 1 && still != run.standsStill) break;
    if (extent > 1) run.standsStill = still;
    run.count *= extent;
  }

  forRanges(cShape.elements() / run.count, run.count, [&](std::size_t first, std::size_t last) {
    for (std::size_t r = first; r < last; ++r) {
      std::size_t offset = 0, stride = run.standsStill ? 1 : run.count, rest = r;
      for (int d = outer; d-- > 0; rest /= cExtents[d]) {
        if (aExtents[d] > 1) offset += rest % cExtents[d] * stride;
        stride *= aExtents[d];
      }
      addRun(run, alpha, a + offset, beta, c + r * run.count);
    }
  });
}

bool broadcasts(const cudnnTensorStruct& a, const cudnnTensorStruct& c) {
  return (a.n == c.n || a.n == 1) && (a.c == c.c || a.c == 1) && (a.h == c.h || a.h == 1) &&
         (a.w == c.w || a.w == 1);
}

}  // namespace

cudnnStatus_t cudnnAddTensor(cudnnHandle_t handle, const void* alpha, cudnnTensorDescriptor_t aDesc,
                             const void* a, const void* beta, cudnnTensorDescriptor_t cDesc,
                             void* c) {
  return enter("cudnnAddTensor", {address(a), address(c)}, [&]() -> cudnnStatus_t {
    if (!allLive(handle) || !alpha || !beta || !areMapped(aDesc, a, cDesc, c) ||
        !broadcasts(*aDesc, *cDesc) || overlap(a, aDesc->bytes(), c, cDesc->bytes())) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    writeDevice(c, cDesc->bytes());
    addTensor(*static_cast<const float*>(alpha), *aDesc, static_cast<const float*>(a),
              *static_cast<const float*>(beta), *cDesc, static_cast<float*>(c));
    return CUDNN_STATUS_SUCCESS;
  });
}

cudnnStatus_t cudnnActivationForward(cudnnHandle_t handle, cudnnActivationDescriptor_t activation,
                                     const void* alpha, cudnnTensorDescriptor_t xDesc,
                                     const void* x, const void* beta, cudnnTensorDescriptor_t yDesc,
                                     void* y) {
  return enter("cudnnActivationForward", {address(x), address(y)}, [&]() -> cudnnStatus_t {
    if (!allLive(handle, activation) || !activation->set || !areMapped(xDesc, x, yDesc, y) ||
        !sameShape(*xDesc, *yDesc) || (x != y && overlap(x, xDesc->bytes(), y, yDesc->bytes()))) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    if (const auto status = checkPlain(alpha, beta)) return status;
    writeDevice(y, yDesc->bytes());
    const auto rectify =
        activation->nan == CUDNN_PROPAGATE_NAN ? rectifyKeepingNan : rectifyDroppingNan;
    const auto* from = static_cast<const float*>(x);
    auto* to = static_cast<float*>(y);
    forPieces(xDesc->elements(), [&](std::size_t begin, std::size_t end) {
      rectify(from + begin, to + begin, end - begin);
    });
    return CUDNN_STATUS_SUCCESS;
  });
}

cudnnStatus_t cudnnSoftmaxForward(cudnnHandle_t handle, cudnnSoftmaxAlgorithm_t algorithm,
                                  cudnnSoftmaxMode_t mode, const void* alpha,
                                  cudnnTensorDescriptor_t xDesc, const void* x, const void* beta,
                                  cudnnTensorDescriptor_t yDesc, void* y) {
  return enter(
      "cudnnSoftmaxForward", {algorithm, mode, address(x), address(y)}, [&]() -> cudnnStatus_t {
        if (!allLive(handle) || !areMapped(xDesc, x, yDesc, y) || !sameShape(*xDesc, *yDesc) ||
            (x != y && overlap(x, xDesc->bytes(), y, yDesc->bytes()))) {
          return CUDNN_STATUS_BAD_PARAM;
        }
        if (const auto status = checkPlain(alpha, beta)) return status;
        if (algorithm != CUDNN_SOFTMAX_FAST || mode != CUDNN_SOFTMAX_MODE_CHANNEL) {
          return CUDNN_STATUS_NOT_SUPPORTED;
        }
        writeDevice(y, yDesc->bytes());
        softmax(*xDesc, static_cast<const float*>(x), static_cast<float*>(y));
        return CUDNN_STATUS_SUCCESS;
      });
}
