/// @file
/// Element-wise calls and softmax.
#include <cudnn.h>

#include "instrumentation.h"
#include "kernels/kernels.h"
#include "kernels/parallel.h"
#include "operands.h"

using namespace host_device;

namespace {

void softmaxTensor(const cudnnTensorStruct& shape, const float* x, float* y) {
  const std::size_t plane = std::size_t{1} * shape.h * shape.w;
  const std::size_t image = plane * shape.c;
  const auto softmax = kernels().elements.softmax;
  forRanges(shape.n * plane, shape.c, [&](std::size_t first, std::size_t last) {
    for (; first < last; ++first) {
      const std::size_t begin = first / plane * image + first % plane;
      softmax(shape.c, plane, x + begin, y + begin);
    }
  });
}

/// A run of c in which a either advances with c or stands still.
struct AddedRun {
  std::size_t count = 1;
  bool standsStill = false;
};

/// c = alpha · a + beta · c.
void addTensor(float alpha, const cudnnTensorStruct& aShape, const float* a, float beta,
               const cudnnTensorStruct& cShape, float* c) {
  const int aExtents[] = {aShape.n, aShape.c, aShape.h, aShape.w};
  const int cExtents[] = {cShape.n, cShape.c, cShape.h, cShape.w};

  // The longest run: the innermost dimensions up to where a changes between advancing and not.
  AddedRun run;
  int outer = 4;
  for (; outer > 0; --outer) {
    const int extent = cExtents[outer - 1];
    const bool still = aExtents[outer - 1] != extent;
    if (run.count > 1 && extent > 1 && still != run.standsStill) break;
    if (extent > 1) run.standsStill = still;
    run.count *= extent;
  }

  const auto add = kernels().elements.add;
  forRanges(cShape.elements() / run.count, run.count, [&](std::size_t first, std::size_t last) {
    for (std::size_t r = first; r < last; ++r) {
      std::size_t offset = 0, stride = run.standsStill ? 1 : run.count, rest = r;
      for (int d = outer; d-- > 0; rest /= cExtents[d]) {
        if (aExtents[d] > 1) offset += rest % cExtents[d] * stride;
        stride *= aExtents[d];
      }
      add(run.count, run.standsStill, alpha, a + offset, beta, c + r * run.count);
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
    const Elements& elements = kernels().elements;
    const auto rectify = activation->nan == CUDNN_PROPAGATE_NAN ? elements.rectifyKeepingNan
                                                                : elements.rectifyDroppingNan;
    const auto* from = static_cast<const float*>(x);
    auto* to = static_cast<float*>(y);
    forRanges(xDesc->elements(), 1, [&](std::size_t begin, std::size_t end) {
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
        softmaxTensor(*xDesc, static_cast<const float*>(x), static_cast<float*>(y));
        return CUDNN_STATUS_SUCCESS;
      });
}
