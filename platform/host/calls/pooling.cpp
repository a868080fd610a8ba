/// @file
/// Pooling. Windows may overhang the padded input at the bottom and at the right.
#include <cudnn.h>

#include <algorithm>
#include <vector>

#include "instrumentation.h"
#include "kernels/kernels.h"
#include "kernels/parallel.h"
#include "operands.h"

using namespace host_device;

namespace {

bool everyWindowHoldsInput(const Axis& axis) {
  return axis.kernel > axis.pad &&
         std::int64_t{axis.output - 1} * axis.stride - axis.pad < axis.input;
}

/// The positions of each window that lie inside the padded input.
void countPositions(const Axis& axis, float* counts) {
  for (int i = 0; i < axis.output; ++i) {
    const int start = i * axis.stride - axis.pad;
    counts[i] = std::min(start + axis.kernel, axis.input + axis.pad) - start;
  }
}

/// Floats of a row that holds the padded input and all windows, with room to read two beyond.
std::size_t pitchOf(const Axis& axis) {
  const int span = std::max(axis.pad + axis.input, (axis.output - 1) * axis.stride + axis.kernel);
  return (span + 2 + 15) / 16 * 16;
}

}  // namespace

cudnnStatus_t cudnnPoolingForward(cudnnHandle_t handle, cudnnPoolingDescriptor_t pooling,
                                  const void* alpha, cudnnTensorDescriptor_t xDesc, const void* x,
                                  const void* beta, cudnnTensorDescriptor_t yDesc, void* y) {
  return enter("cudnnPoolingForward", {address(x), address(y)}, [&]() -> cudnnStatus_t {
    if (!allLive(handle, pooling) || pooling->windowH <= 0 || !areMapped(xDesc, x, yDesc, y) ||
        xDesc->n != yDesc->n || xDesc->c != yDesc->c ||
        overlap(x, xDesc->bytes(), y, yDesc->bytes())) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    const Axis vertical{xDesc->h, pooling->windowH, pooling->padH, pooling->strideH, yDesc->h};
    const Axis horizontal{xDesc->w, pooling->windowW, pooling->padW, pooling->strideW, yDesc->w};
    if (!everyWindowHoldsInput(vertical) || !everyWindowHoldsInput(horizontal)) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    if (const auto status = checkPlain(alpha, beta)) return status;
    if (pooling->mode == CUDNN_POOLING_AVERAGE_COUNT_EXCLUDE_PADDING) {
      return CUDNN_STATUS_NOT_SUPPORTED;
    }
    writeDevice(y, yDesc->bytes());

    const Pooling& kernel = kernels().pooling;
    const auto pool = pooling->mode == CUDNN_POOLING_MAX ? kernel.largest : kernel.average;
    std::vector<float>&counts = handle->windowCounts, &scratch = handle->poolingScratch;
    counts.resize(std::size_t{1} * yDesc->h + yDesc->w);
    float *const rowCounts = counts.data(), *const columnCounts = rowCounts + yDesc->h;
    countPositions(vertical, rowCounts);
    countPositions(horizontal, columnCounts);
    const PoolingPlan plan{vertical, horizontal, pitchOf(horizontal), rowCounts, columnCounts};
    const std::size_t perWorker = kPoolingRows * plan.pitch;
    scratch.resize(std::max(scratch.size(), teamSize() * perWorker));
    const std::size_t planes = std::size_t{1} * xDesc->n * xDesc->c;
    const std::size_t xPlane = std::size_t{1} * xDesc->h * xDesc->w;
    const std::size_t yPlane = std::size_t{1} * yDesc->h * yDesc->w;
    forWorkers(planes, xPlane,
               [&, rows = scratch.data()](std::size_t worker, std::size_t begin, std::size_t end) {
                 pool(plan, end - begin, static_cast<const float*>(x) + begin * xPlane,
                      static_cast<float*>(y) + begin * yPlane, rows + worker * perWorker);
               });
    return CUDNN_STATUS_SUCCESS;
  });
}
