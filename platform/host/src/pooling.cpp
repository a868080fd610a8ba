/// @file
/// Pooling. Windows may overhang the padded input at the bottom and at the right.
#include <cudnn.h>
#include <omp.h>

#include <limits>
#include <vector>

#include "compute.h"
#include "instrumentation.h"

using namespace host_device::detail;

namespace {

/// One direction of the windows.
struct Axis {
  int input, output, window, pad, stride;

  int start(int i) const { return i * stride - pad; }
  /// Positions of window i inside the padded input.
  int positions(int i) const { return std::min(start(i) + window, input + pad) - start(i); }
  /// Elements that the input and all windows span, counted from the start of the padding.
  int span() const { return std::max(pad + input, (output - 1) * stride + window); }
  bool everyWindowHoldsInput() const {
    return window > pad && std::int64_t{output - 1} * stride - pad < input;
  }
};

struct Maximum {
  static constexpr float identity = -std::numeric_limits<float>::infinity();
  static float combine(float a, float b) { return ((b > a) | (b != b)) ? b : a; }  // keeps a NaN
};
struct Sum {
  static constexpr float identity = 0.0f;
  static float combine(float a, float b) { return a + b; }
};

template <class Operation>
HOST_DEVICE_INLINE void combineColumns(int window, int stride, int outputs,
                                       const float* __restrict row, float* __restrict y) {
  for (int j = 0; j < outputs; ++j) {
    float combined = row[j * stride];
    for (int v = 1; v < window; ++v) combined = Operation::combine(combined, row[j * stride + v]);
    y[j] = combined;
  }
}

/// Combines the rows of each row of windows into `row`, which spans the padded width, then columns.
template <class Operation>
HOST_DEVICE_INLINE void poolPlane(const Axis& vertical, const Axis& horizontal,
                                  const float* __restrict x, float* __restrict y,
                                  float* __restrict row) {
  const int width = horizontal.input, outputs = horizontal.output;
  const int window = horizontal.window, stride = horizontal.stride;
  for (int i = 0; i < vertical.output; ++i, y += outputs) {
    std::fill_n(row, horizontal.span(), Operation::identity);
    float* __restrict inside = row + horizontal.pad;
    const int begin = std::max(0, vertical.start(i));
    const int end = std::min(vertical.input, vertical.start(i) + vertical.window);
    for (int h = begin; h < end; ++h) {
      const float* __restrict line = x + std::size_t{1} * h * width;
      for (int j = 0; j < width; ++j) inside[j] = Operation::combine(inside[j], line[j]);
    }
    // What the compiler knows it vectorizes; these are the usual windows.
    if (window == 3 && stride == 1) {
      combineColumns<Operation>(3, 1, outputs, row, y);
    } else if (window == 3 && stride == 2) {
      combineColumns<Operation>(3, 2, outputs, row, y);
    } else {
      combineColumns<Operation>(window, stride, outputs, row, y);
    }
  }
}

HOST_DEVICE_CLONES void maximumPlane(const Axis& vertical, const Axis& horizontal, const float* x,
                                     float* y, float* row) {
  poolPlane<Maximum>(vertical, horizontal, x, y, row);
}

HOST_DEVICE_CLONES void averagePlane(const Axis& vertical, const Axis& horizontal, const float* x,
                                     float* y, float* row) {
  poolPlane<Sum>(vertical, horizontal, x, y, row);
  for (int i = 0; i < vertical.output; ++i, y += horizontal.output) {
    const int rows = vertical.positions(i);
    for (int j = 0; j < horizontal.output; ++j) {
      y[j] /= static_cast<float>(rows * horizontal.positions(j));
    }
  }
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
    const Axis vertical{xDesc->h, yDesc->h, pooling->windowH, pooling->padH, pooling->strideH};
    const Axis horizontal{xDesc->w, yDesc->w, pooling->windowW, pooling->padW, pooling->strideW};
    if (!vertical.everyWindowHoldsInput() || !horizontal.everyWindowHoldsInput()) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    if (const auto status = checkPlain(alpha, beta)) return status;
    if (pooling->mode == CUDNN_POOLING_AVERAGE_COUNT_EXCLUDE_PADDING) {
      return CUDNN_STATUS_NOT_SUPPORTED;
    }
    writeDevice(y, yDesc->bytes());

    const auto pool = pooling->mode == CUDNN_POOLING_MAX ? maximumPlane : averagePlane;
    const std::int64_t planes = std::int64_t{xDesc->n} * xDesc->c;
    const std::size_t xPlane = std::size_t{1} * xDesc->h * xDesc->w;
    const std::size_t yPlane = std::size_t{1} * yDesc->h * yDesc->w;
    const std::size_t span = horizontal.span();
    std::vector<float> rows(omp_get_max_threads() * span);
#pragma omp parallel for schedule(static)
    for (std::int64_t plane = 0; plane < planes; ++plane) {
      pool(vertical, horizontal, static_cast<const float*>(x) + plane * xPlane,
           static_cast<float*>(y) + plane * yPlane, rows.data() + omp_get_thread_num() * span);
    }
    return CUDNN_STATUS_SUCCESS;
  });
}
