/// @file
/// Pooling. Windows may overhang the padded input at the bottom and at the right.
#include <cudnn.h>
#include <cstring>
#include <limits>
#include <type_traits>
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

/// Neighbouring floats that are handled at once. They are passed by reference: by value, they would
/// need the same instruction set on both sides.
template <int Count>
struct VectorOf {
  using Type [[gnu::vector_size(Count * sizeof(float))]] = float;
};
template <>
struct VectorOf<1> {
  using Type = float;
};
template <int Count>
using Vector = typename VectorOf<Count>::Type;

struct Maximum {
  static constexpr float identity = -std::numeric_limits<float>::infinity();
  template <class V>
  HOST_DEVICE_INLINE static void combine(V& a, const V& b) {
    const V larger = b > a ? b : a;
    a = b != b ? b : larger;  // keeps a NaN
  }
  template <class V>
  HOST_DEVICE_INLINE static void finish(V& /*combined*/, float /*rows*/, const V& /*columns*/) {}
};
struct Average {
  static constexpr float identity = 0.0f;
  template <class V>
  HOST_DEVICE_INLINE static void combine(V& a, const V& b) {
    a += b;
  }
  template <class V>
  HOST_DEVICE_INLINE static void finish(V& combined, float rows, const V& columns) {
    combined /= rows * columns;
  }
};

template <class V>
HOST_DEVICE_INLINE void load(V& v, const float* from) {
  std::memcpy(&v, from, sizeof v);
}

/// Loads every stride-th element; for a stride of 2 it reads one element more than it needs.
template <int Stride, int Count>
HOST_DEVICE_INLINE void loadStrided(Vector<Count>& v, const float* from, int stride) {
  if constexpr (Stride == 1 || Count == 1) {
    load(v, from);
  } else if constexpr (Stride == 2) {
    Vector<Count> low = {}, high = {};
    load(low, from);
    load(high, from + Count);
    if constexpr (Count == 8) {
      v = __builtin_shufflevector(low, high, 0, 2, 4, 6, 8, 10, 12, 14);
    } else {
      v = __builtin_shufflevector(low, high, 0, 2, 4, 6);
    }
  } else {
    for (int i = 0; i < Count; ++i) v[i] = from[i * stride];
  }
}

template <int Count, class Body>
HOST_DEVICE_INLINE void forVectorsOf(int elements, const Body& body) {
  constexpr std::integral_constant<int, Count> count;
  for (int i = 0; i < elements - Count; i += Count) body(count, i);
  body(count, elements - Count);
}

/// Calls body(count, i) for vectors of `count` elements from i on, which together are all elements.
/// The last vector overlaps the one before it rather than leave a rest.
template <class Body>
HOST_DEVICE_INLINE void forVectors(int elements, const Body& body) {
  if (elements >= 8) {
    forVectorsOf<8>(elements, body);
  } else if (elements >= 4) {
    forVectorsOf<4>(elements, body);
  } else {
    forVectorsOf<1>(elements, body);
  }
}

/// Combines `rows` rows of x, which are `width` wide, into one.
template <class Operation>
HOST_DEVICE_INLINE void combineRows(const float* x, int width, int rows, float* combined) {
  forVectors(
      width, [=](auto count, int j) __attribute__((always_inline)) {
        Vector<count> v = {}, next = {};
        load(v, x + j);
        for (int h = 1; h < rows; ++h) {
          load(next, x + std::size_t{1} * h * width + j);
          Operation::combine(v, next);
        }
        std::memcpy(combined + j, &v, sizeof v);
      });
}

/// Combines `window` neighbours in a row, every Stride-th time, or every `stride`-th for 0.
template <class Operation, int Stride>
HOST_DEVICE_INLINE void combineColumns(const float* row, int window, int stride, int outputs,
                                       float rowCount, const float* columnCounts, float* y) {
  forVectors(
      outputs, [=](auto count, int j) __attribute__((always_inline)) {
        const float* first = row + std::size_t{1} * j * stride;
        Vector<count> v = {}, next = {};
        loadStrided<Stride, count>(v, first, stride);
        for (int i = 1; i < window; ++i) {
          loadStrided<Stride, count>(next, first + i, stride);
          Operation::combine(v, next);
        }
        load(next, columnCounts + j);
        Operation::finish(v, rowCount, next);
        std::memcpy(y + j, &v, sizeof v);
      });
}

/// Rows that are combined before their columns are: a vector can be read again only some time after
/// other vectors have written its parts.
constexpr int stripRows = 8;

struct Plan {
  Axis vertical, horizontal;

  int pitch() const { return (horizontal.span() + 16) / 16 * 16; }
  std::size_t scratch() const { return std::size_t{stripRows} * pitch(); }
};

/// @param Window,Stride of both axes if known to the compiler, else 0
/// @param columnCounts positions of each window of the horizontal axis
/// @param scratch `plan.scratch()` floats
template <class Operation, int Window, int Stride>
HOST_DEVICE_INLINE void poolPlanes(const Plan& plan, std::size_t planes, const float* x, float* y,
                                   const float* columnCounts, float* scratch) {
  const Axis vertical = plan.vertical, horizontal = plan.horizontal;
  const int pitch = plan.pitch(), width = horizontal.input, outputs = horizontal.output;
  const int window = Window > 0 ? Window : horizontal.window;
  const int stride = Stride > 0 ? Stride : horizontal.stride;
  std::fill_n(scratch, plan.scratch(), Operation::identity);  // the padding stays so
  for (std::size_t plane = 0; plane < planes; ++plane) {
    for (int strip = 0; strip < vertical.output; strip += stripRows) {
      const int end = std::min(strip + stripRows, vertical.output);
      float* row = scratch;
      for (int i = strip; i < end; ++i, row += pitch) {
        const int from = std::max(0, vertical.start(i));
        const int rows = std::min(vertical.input, vertical.start(i) + vertical.window) - from;
        const float* lines = x + std::size_t{1} * from * width;
        if (rows == Window) {
          combineRows<Operation>(lines, width, Window, row + horizontal.pad);
        } else {
          combineRows<Operation>(lines, width, rows, row + horizontal.pad);
        }
      }
      row = scratch;
      for (int i = strip; i < end; ++i, row += pitch, y += outputs) {
        combineColumns<Operation, Stride>(row, window, stride, outputs,
                                          static_cast<float>(vertical.positions(i)), columnCounts,
                                          y);
      }
    }
    x += std::size_t{1} * vertical.input * width;
  }
}

/// Tells the compiler of the usual windows.
template <class Operation>
HOST_DEVICE_INLINE void poolUsual(const Plan& plan, std::size_t planes, const float* x, float* y,
                                  const float* columnCounts, float* scratch) {
  const auto is = [&](int window, int stride) __attribute__((always_inline)) {
    return plan.vertical.window == window && plan.horizontal.window == window &&
           plan.horizontal.stride == stride;
  };
  if (is(3, 1)) {
    poolPlanes<Operation, 3, 1>(plan, planes, x, y, columnCounts, scratch);
  } else if (is(3, 2)) {
    poolPlanes<Operation, 3, 2>(plan, planes, x, y, columnCounts, scratch);
  } else if (is(2, 2)) {
    poolPlanes<Operation, 2, 2>(plan, planes, x, y, columnCounts, scratch);
  } else if (is(3, 3)) {
    poolPlanes<Operation, 3, 3>(plan, planes, x, y, columnCounts, scratch);
  } else {
    poolPlanes<Operation, 0, 0>(plan, planes, x, y, columnCounts, scratch);
  }
}

HOST_DEVICE_CLONES void largest(const Plan& plan, std::size_t planes, const float* x, float* y,
                                const float* columnCounts, float* scratch) {
  poolUsual<Maximum>(plan, planes, x, y, columnCounts, scratch);
}

HOST_DEVICE_CLONES void average(const Plan& plan, std::size_t planes, const float* x, float* y,
                                const float* columnCounts, float* scratch) {
  poolUsual<Average>(plan, planes, x, y, columnCounts, scratch);
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

    const auto pool = pooling->mode == CUDNN_POOLING_MAX ? largest : average;
    const Plan plan{vertical, horizontal};
    const std::size_t planes = std::size_t{1} * xDesc->n * xDesc->c;
    const std::size_t xPlane = std::size_t{1} * xDesc->h * xDesc->w;
    const std::size_t yPlane = std::size_t{1} * yDesc->h * yDesc->w;
    std::vector<float>&scratch = handle->poolingScratch, &columnCounts = handle->columnCounts;
    const std::size_t needed = mostWorkers() * plan.scratch();
    if (scratch.size() < needed) scratch.resize(needed);
    columnCounts.resize(horizontal.output);
    for (int j = 0; j < horizontal.output; ++j) columnCounts[j] = horizontal.positions(j);
    forWorkers(planes, xPlane,
               [&, rows = scratch.data(), counts = columnCounts.data()](
                   std::size_t worker, std::size_t begin, std::size_t end) {
                 pool(plan, end - begin, static_cast<const float*>(x) + begin * xPlane,
                      static_cast<float*>(y) + begin * yPlane, counts,
                      rows + worker * plan.scratch());
               });
    return CUDNN_STATUS_SUCCESS;
  });
}
