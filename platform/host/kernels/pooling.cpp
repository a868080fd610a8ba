/// @file
/// Pooling. Windows may overhang the padded input at the bottom and at the right.
#include "kernels.h"
#include "vectors.h"

namespace host_device {
namespace {

struct Maximum {
  static constexpr float identity = -__builtin_inff();
  template <class V>
  [[gnu::always_inline]] static void combine(V& a, const V& b) {
    const V larger = b > a ? b : a;
    a = b != b ? b : larger;  // keeps a NaN
  }
  template <class V>
  [[gnu::always_inline]] static void finish(V& /*combined*/, float /*rows*/, const V& /*columns*/) {
  }
};
struct Average {
  static constexpr float identity = 0.0f;
  template <class V>
  [[gnu::always_inline]] static void combine(V& a, const V& b) {
    a += b;
  }
  template <class V>
  [[gnu::always_inline]] static void finish(V& combined, float rows, const V& columns) {
    combined /= rows * columns;
  }
};

/// Every third element of a, b and c together.
template <int Count, int... I>
[[gnu::always_inline]] inline void everyThird(const typename VectorOf<Count>::type& a,
                                              const typename VectorOf<Count>::type& b,
                                              const typename VectorOf<Count>::type& c,
                                              typename VectorOf<Count>::type& to, Indices<I...>) {
  const auto ofTwo = __builtin_shufflevector(a, b, (3 * I < 2 * Count ? 3 * I : 0)...);
  to = __builtin_shufflevector(ofTwo, c, (3 * I < 2 * Count ? I : 3 * I - Count)...);
}

/// Loads every stride-th element. For a stride of 2 or 3 it reads whole vectors, and so one or two
/// elements more than it needs.
template <int Stride, int Count>
[[gnu::always_inline]] inline void loadStrided(const float* from, int stride,
                                               typename VectorOf<Count>::type& to) {
  if constexpr (Stride == 1 || Count == 1) {
    load<Count>(from, to);
  } else if constexpr (Stride == 2) {
    typename VectorOf<Count>::type low = {}, high = {};
    load<Count>(from, low);
    load<Count>(from + Count, high);
    everySecond<0, Count>(low, high, to, IndicesBelow<Count>());
  } else if constexpr (Stride == 3) {
    typename VectorOf<Count>::type low = {}, middle = {}, high = {};
    load<Count>(from, low);
    load<Count>(from + Count, middle);
    load<Count>(from + 2 * Count, high);
    everyThird<Count>(low, middle, high, to, IndicesBelow<Count>());
  } else {
    for (int i = 0; i < Count; ++i) to[i] = from[i * stride];
  }
}

/// A number that is known to the compiler, as an argument.
template <int Value>
struct Constant {
  constexpr operator int() const { return Value; }
};

template <int Count, class Body>
[[gnu::always_inline]] inline void forVectorsOf(int elements, const Body& body) {
  for (int i = 0; i < elements - Count; i += Count) body(Constant<Count>(), i);
  body(Constant<Count>(), elements - Count);
}

/// Calls body(count, i) for vectors of `count` elements from i on, which together are all elements.
/// The last vector overlaps the one before it rather than leave a rest.
template <class Body>
[[gnu::always_inline]] inline void forVectors(int elements, const Body& body) {
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
[[gnu::always_inline]] inline void combineRows(const float* x, int width, int rows,
                                               float* combined) {
  forVectors(
      width, [=](auto count, int j) __attribute__((always_inline)) {
        typename VectorOf<count>::type v = {}, next = {};
        load<count>(x + j, v);
        for (int h = 1; h < rows; ++h) {
          load<count>(x + std::size_t{1} * h * width + j, next);
          Operation::combine(v, next);
        }
        store<count>(v, combined + j);
      });
}

/// Combines `window` neighbours in a row, every Stride-th time, or every `stride`-th for 0.
template <class Operation, int Stride>
[[gnu::always_inline]] inline void combineColumns(const float* row, int window, int stride,
                                                  int outputs, float rowCount,
                                                  const float* columnCounts, float* y) {
  forVectors(
      outputs, [=](auto count, int j) __attribute__((always_inline)) {
        const float* first = row + std::size_t{1} * j * stride;
        typename VectorOf<count>::type v = {}, next = {};
        loadStrided<Stride, count>(first, stride, v);
        for (int i = 1; i < window; ++i) {
          loadStrided<Stride, count>(first + i, stride, next);
          Operation::combine(v, next);
        }
        load<count>(columnCounts + j, next);
        Operation::finish(v, rowCount, next);
        store<count>(v, y + j);
      });
}

/// @param Window,Stride of both axes if known to the compiler, else 0
template <class Operation, int Window, int Stride>
[[gnu::always_inline]] inline void poolPlanes(const PoolingPlan& plan, std::size_t planes,
                                              const float* x, float* y, float* scratch) {
  const Axis vertical = plan.vertical, horizontal = plan.horizontal;
  const std::size_t pitch = plan.pitch;
  const int width = horizontal.input, outputs = horizontal.output;
  const int window = Window > 0 ? Window : horizontal.kernel;
  const int stride = Stride > 0 ? Stride : horizontal.stride;
  // The padding stays so.
  for (std::size_t i = 0; i < kPoolingRows * pitch; ++i) scratch[i] = Operation::identity;
  for (std::size_t plane = 0; plane < planes; ++plane) {
    for (int strip = 0; strip < vertical.output; strip += kPoolingRows) {
      const int stripEnd = strip + kPoolingRows;
      const int end = stripEnd < vertical.output ? stripEnd : vertical.output;
      float* row = scratch;
      for (int i = strip; i < end; ++i, row += pitch) {
        const int start = i * vertical.stride - vertical.pad, last = start + vertical.kernel;
        const int from = start > 0 ? start : 0;
        const int rows = (last < vertical.input ? last : vertical.input) - from;
        const float* lines = x + std::size_t{1} * from * width;
        if (rows == Window) {
          combineRows<Operation>(lines, width, Window, row + horizontal.pad);
        } else {
          combineRows<Operation>(lines, width, rows, row + horizontal.pad);
        }
      }
      row = scratch;
      for (int i = strip; i < end; ++i, row += pitch, y += outputs) {
        combineColumns<Operation, Stride>(row, window, stride, outputs, plan.rowCounts[i],
                                          plan.columnCounts, y);
      }
    }
    x += std::size_t{1} * vertical.input * width;
  }
}

/// Tells the compiler of the usual windows.
template <class Operation>
void pool(const PoolingPlan& plan, std::size_t planes, const float* x, float* y, float* scratch) {
  const auto is = [&](int window, int stride) {
    return plan.vertical.kernel == window && plan.horizontal.kernel == window &&
           plan.horizontal.stride == stride;
  };
  if (is(3, 1)) {
    poolPlanes<Operation, 3, 1>(plan, planes, x, y, scratch);
  } else if (is(3, 2)) {
    poolPlanes<Operation, 3, 2>(plan, planes, x, y, scratch);
  } else if (is(2, 2)) {
    poolPlanes<Operation, 2, 2>(plan, planes, x, y, scratch);
  } else if (is(3, 3)) {
    poolPlanes<Operation, 3, 3>(plan, planes, x, y, scratch);
  } else {
    poolPlanes<Operation, 0, 0>(plan, planes, x, y, scratch);
  }
}

}  // namespace

const Pooling HOST_DEVICE_SET::pooling = {pool<Maximum>, pool<Average>};

}  // namespace host_device
