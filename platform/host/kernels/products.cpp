/// @file
/// Matrix products, and what convolutions do around them.
#include "kernels.h"
#include "vectors.h"

namespace host_device {
namespace {

[[gnu::always_inline]] inline void addAndRectify(float bias, Vector& value) {
  const Vector zero = {}, sum = value + bias;
  value = sum > zero ? sum : zero;
}

/// All loops over `sum` are unrolled, so that it never is an array in memory.
template <int Width>
void multiply(std::size_t depth, const float* __restrict a, std::size_t aRow, std::size_t aStep,
              const float* __restrict b, const float* bias, float* __restrict c,
              std::size_t stride) {
  Vector sum[kRows][Width];
#pragma GCC unroll 8
  for (auto& row : sum) {
#pragma GCC unroll 8
    for (Vector& each : row) each = Vector{};
  }
  for (std::size_t d = 0; d < depth; ++d, a += aStep, b += Width * kLanes) {
    Vector column[Width];
#pragma GCC unroll 8
    for (int j = 0; j < Width; ++j) load(b + j * kLanes, column[j]);
#pragma GCC unroll 8
    for (int r = 0; r < kRows; ++r) {
#pragma GCC unroll 8
      for (int j = 0; j < Width; ++j) sum[r][j] += a[r * aRow] * column[j];
    }
  }
  if (bias) {
#pragma GCC unroll 8
    for (int r = 0; r < kRows; ++r) {
#pragma GCC unroll 8
      for (int j = 0; j < Width; ++j) addAndRectify(bias[r], sum[r][j]);
    }
  }
#pragma GCC unroll 8
  for (int r = 0; r < kRows; ++r, c += stride) {
#pragma GCC unroll 8
    for (int j = 0; j < Width; ++j) store(sum[r][j], c + j * kLanes);
  }
}

/// Several groups at once, as each sum waits for its last addition.
template <int Groups>
[[gnu::always_inline]] inline void multiplyColumnBy(std::size_t depth, const float* __restrict a,
                                                    std::size_t aGroup, const float* __restrict b,
                                                    std::size_t bStep, float* __restrict c,
                                                    std::size_t stride) {
  using Rows = VectorOf<kRows>::type;
  Rows sum[Groups] = {}, row;
  for (std::size_t d = 0; d < depth; ++d, a += kRows, b += bStep) {
#pragma GCC unroll 8
    for (int g = 0; g < Groups; ++g) {
      load<kRows>(a + g * aGroup, row);
      sum[g] += row * *b;
    }
  }
  for (int g = 0; g < Groups; ++g) {
    for (int r = 0; r < kRows; ++r, c += stride) *c = sum[g][r];
  }
}

void multiplyColumn(std::size_t depth, const float* a, std::size_t aGroup, std::size_t groups,
                    const float* b, std::size_t bStep, float* c, std::size_t stride) {
  constexpr int atOnce = 8;
  for (; groups >= atOnce; groups -= atOnce, a += atOnce * aGroup, c += atOnce * kRows * stride) {
    multiplyColumnBy<atOnce>(depth, a, aGroup, b, bStep, c, stride);
  }
  for (; groups > 0; --groups, a += aGroup, c += kRows * stride) {
    multiplyColumnBy<1>(depth, a, aGroup, b, bStep, c, stride);
  }
}

void gather(const float* x, const std::size_t* offsets, int rows, const Run* runs, int count,
            float* panel, std::size_t width, bool slack) {
  for (int r = 0; r < rows; ++r, panel += width) {
    for (int i = 0; i < count; ++i) {
      const float* from = x + offsets[r] + runs[i].from;
      float* to = panel + runs[i].to;
      int left = runs[i].count;
      Vector vector;
      for (; left >= kLanes; left -= kLanes, from += kLanes, to += kLanes) {
        load(from, vector);
        store(vector, to);
      }
      if (left > 0 && slack) {
        load(from, vector);
        store(vector, to);
      } else {
        for (int j = 0; j < left; ++j) to[j] = from[j];
      }
    }
  }
}

void storeRows(const float* tile, std::size_t tileStride, int rows, int count, const float* bias,
               int biasStep, float* y, std::size_t yStride) {
  for (int r = 0; r < rows; ++r, tile += tileStride, y += yStride) {
    const float added = bias ? bias[r * biasStep] : 0.0f;
    int j = 0;
    for (; j + kLanes <= count; j += kLanes) {
      Vector value;
      load(tile + j, value);
      if (bias) addAndRectify(added, value);
      store(value, y + j);
    }
    for (; j < count; ++j) {
      const float value = tile[j] + added;
      y[j] = bias && !(value > 0.0f) ? 0.0f : value;
    }
  }
}

template <int A, int B>
inline void dotTile(std::size_t size, const float* a, std::size_t aStride, const float* b,
                    std::size_t bStride, float* sums, std::size_t stride) {
  Vector sum[A][B];
#pragma GCC unroll 8
  for (auto& row : sum) {
#pragma GCC unroll 8
    for (Vector& each : row) each = Vector{};
  }
  std::size_t d = 0;
  for (; d + kLanes <= size; d += kLanes) {
    Vector right[B];
#pragma GCC unroll 8
    for (int j = 0; j < B; ++j) load(b + j * bStride + d, right[j]);
#pragma GCC unroll 8
    for (int i = 0; i < A; ++i) {
      Vector left;
      load(a + i * aStride + d, left);
#pragma GCC unroll 8
      for (int j = 0; j < B; ++j) sum[i][j] += left * right[j];
    }
  }
  float rest[A][B] = {};
  for (; d < size; ++d) {
    for (int i = 0; i < A; ++i) {
      for (int j = 0; j < B; ++j) rest[i][j] += a[i * aStride + d] * b[j * bStride + d];
    }
  }
#pragma GCC unroll 8
  for (int i = 0; i < A; ++i) {
#pragma GCC unroll 8
    for (int j = 0; j < B; ++j) {
      float total = rest[i][j];
      for (int lane = 0; lane < kLanes; ++lane) total += sum[i][j][lane];
      sums[i * stride + j] = total;
    }
  }
}

template <int A>
inline void dotRows(std::size_t size, const float* a, std::size_t aStride, const float* b,
                    std::size_t bStride, int bCount, float* sums, std::size_t stride) {
  int j = 0;
  for (; j + 4 <= bCount; j += 4) {
    dotTile<A, 4>(size, a, aStride, b + j * bStride, bStride, sums + j, stride);
  }
  for (; j < bCount; ++j) {
    dotTile<A, 1>(size, a, aStride, b + j * bStride, bStride, sums + j, stride);
  }
}

/// In tiles of a height whose sums fit the registers, four wide.
void dotProducts(std::size_t size, const float* a, std::size_t aStride, int aCount, const float* b,
                 std::size_t bStride, int bCount, float* sums, std::size_t stride) {
  constexpr int height = kRows * kWidest / 4;
  int i = 0;
  for (; i + height <= aCount; i += height) {
    dotRows<height>(size, a + i * aStride, aStride, b, bStride, bCount, sums + i * stride, stride);
  }
  for (; i < aCount; ++i) {
    dotRows<1>(size, a + i * aStride, aStride, b, bStride, bCount, sums + i * stride, stride);
  }
}

}  // namespace

const Products HOST_DEVICE_SET::products = {
    kLanes, kRows,     {multiply<1>, multiply<2>, multiply<3>}, multiplyColumn, dotProducts,
    gather, storeRows,
};

}  // namespace host_device
