/// @file
/// The loops behind vector_code.h, written once over the vectors of an instruction set. Each unit
/// that includes it is compiled for another one, so nothing here may be shared between them: no
/// function that does not depend on the type of the vectors, none of the standard library's.
#pragma once

#include "vector_code.h"

namespace host_device {
namespace detail {
namespace {

template <int Bytes>
struct VectorOf {
  typedef float type [[gnu::vector_size(Bytes)]];
  typedef float unaligned [[gnu::vector_size(Bytes), gnu::aligned(4), gnu::may_alias]];
};

/// @tparam Lanes floats in a vector
/// @tparam Rows of a tile; Rows * 3 sums, 3 columns and a weight should fit the registers
template <int Lanes, int Rows>
struct Code {
  using Vector = typename VectorOf<Lanes * 4>::type;
  using Unaligned = typename VectorOf<Lanes * 4>::unaligned;

  static void load(const float* from, Vector& to) {
    to = *reinterpret_cast<const Unaligned*>(from);
  }
  static void store(const Vector& from, float* to) { *reinterpret_cast<Unaligned*>(to) = from; }

  template <int Width>
  static void multiply(std::size_t depth, const float* __restrict a, const float* __restrict b,
                       float* __restrict c, std::size_t stride) {
    Vector sum[Rows][Width] = {};
    for (std::size_t d = 0; d < depth; ++d, a += Rows, b += Width * Lanes) {
      Vector column[Width];
      for (int j = 0; j < Width; ++j) load(b + j * Lanes, column[j]);
      for (int r = 0; r < Rows; ++r) {
        for (int j = 0; j < Width; ++j) sum[r][j] += a[r] * column[j];
      }
    }
    for (int r = 0; r < Rows; ++r) {
      for (int j = 0; j < Width; ++j) store(sum[r][j], c + r * stride + j * Lanes);
    }
  }

  /// Vectors run along the rows here, as the columns would fill but a part of one.
  static void multiplyNarrow(std::size_t depth, const float* __restrict a,
                             const float* __restrict b, float* __restrict c, std::size_t stride) {
    using Column = typename VectorOf<Rows * 4>::unaligned;
    Column sum[kNarrow] = {};
    for (std::size_t d = 0; d < depth; ++d, a += Rows, b += kNarrow) {
      const Column column = *reinterpret_cast<const Column*>(a);
      for (int j = 0; j < kNarrow; ++j) sum[j] += column * b[j];
    }
    for (int r = 0; r < Rows; ++r) {
      for (int j = 0; j < kNarrow; ++j) c[r * stride + j] = sum[j][r];
    }
  }

  static void gather(const float* x, const std::size_t* offsets, int rows, const Run* runs,
                     int count, float* panel, std::size_t width, bool slack) {
    for (int r = 0; r < rows; ++r, panel += width) {
      for (int i = 0; i < count; ++i) {
        const float* from = x + offsets[r] + runs[i].from;
        float* to = panel + runs[i].to;
        int left = runs[i].count;
        Vector vector;
        for (; left >= Lanes; left -= Lanes, from += Lanes, to += Lanes) {
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

  static void storeRows(const float* tile, std::size_t tileStride, int rows, int count,
                        const float* bias, int biasStep, float* y, std::size_t yStride) {
    const Vector zero = {};
    for (int r = 0; r < rows; ++r, tile += tileStride, y += yStride) {
      const float added = bias ? bias[r * biasStep] : 0.0f;
      int j = 0;
      for (; j + Lanes <= count; j += Lanes) {
        Vector value;
        load(tile + j, value);
        if (bias) {
          value += added;
          value = value > zero ? value : zero;
        }
        store(value, y + j);
      }
      for (; j < count; ++j) {
        const float value = tile[j] + added;
        y[j] = bias && !(value > 0.0f) ? 0.0f : value;
      }
    }
  }

  // Shuffles of two vectors, lane by lane. The lanes are generated, as their number varies.

  template <int... I>
  struct Indices {};
  template <int N, int... I>
  struct Count : Count<N - 1, N - 1, I...> {};
  template <int... I>
  struct Count<0, I...> {
    using type = Indices<I...>;
  };
  using AllLanes = typename Count<Lanes>::type;

  /// Every second element of a and b together, from the first or the second on.
  template <int First, int... I>
  static void everySecond(const Vector& a, const Vector& b, Vector& to, Indices<I...>) {
    to = __builtin_shufflevector(a, b, (2 * I + First)...);
  }
  /// The elements of one half of a and b in turn.
  template <int Half, int... I>
  static void inTurn(const Vector& a, const Vector& b, Vector& to, Indices<I...>) {
    to = __builtin_shufflevector(a, b, (I / 2 + Half * Lanes / 2 + I % 2 * Lanes)...);
  }

  /// Splits the even from the odd elements.
  static void split(const Vector& a, const Vector& b, Vector& even, Vector& odd) {
    Vector result;
    everySecond<0>(a, b, result, AllLanes());
    everySecond<1>(a, b, odd, AllLanes());
    even = result;
  }
  static void merge(const Vector& even, const Vector& odd, Vector& a, Vector& b) {
    inTurn<0>(even, odd, a, AllLanes());
    inTurn<1>(even, odd, b, AllLanes());
  }

  /// Reads `Size` neighbouring columns of the rows of Lanes tiles.
  static void loadColumns(const float* x, Vector (&columns)[2]) {
    Vector a, b;
    load(x, a);
    load(x + Lanes, b);
    split(a, b, columns[0], columns[1]);
  }
  static void loadColumns(const float* x, Vector (&columns)[4]) {
    Vector low[2], high[2];
    loadColumns(x, low);
    loadColumns(x + 2 * Lanes, high);
    split(low[0], high[0], columns[0], columns[2]);
    split(low[1], high[1], columns[1], columns[3]);
  }
  static void storeColumns(const Vector (&columns)[2], float* y) {
    Vector a, b;
    merge(columns[0], columns[1], a, b);
    store(a, y);
    store(b, y + Lanes);
  }
  static void storeColumns(const Vector (&columns)[4], float* y) {
    Vector even[2], odd[2];
    merge(columns[0], columns[2], even[0], even[1]);
    merge(columns[1], columns[3], odd[0], odd[1]);
    for (int half = 0; half < 2; ++half) {
      const Vector pair[2] = {even[half], odd[half]};
      storeColumns(pair, y + half * 2 * Lanes);
    }
  }

  // Winograd's minimal filtering with the points 0, 1, -1, 2, -2 and infinity (Lavin and Gray, Fast
  // Algorithms for Convolutional Neural Networks, 2015, for 4 outputs).

  static void transformInput(const Vector& x0, const Vector& x1, const Vector& x2, const Vector& x3,
                             const Vector& x4, const Vector& x5, Vector (&t)[kTile]) {
    const Vector even1 = x4 - 4.0f * x2, odd1 = x3 - 4.0f * x1;
    const Vector even2 = x4 - x2, odd2 = 2.0f * (x3 - x1);
    t[0] = 4.0f * x0 - 5.0f * x2 + x4;
    t[1] = even1 + odd1;
    t[2] = even1 - odd1;
    t[3] = even2 + odd2;
    t[4] = even2 - odd2;
    t[5] = 4.0f * x1 - 5.0f * x3 + x5;
  }

  static void transformOutput(const Vector& m0, const Vector& m1, const Vector& m2,
                              const Vector& m3, const Vector& m4, const Vector& m5,
                              Vector (&y)[4]) {
    const Vector sum1 = m1 + m2, sum2 = m3 + m4, difference1 = m1 - m2, difference2 = m3 - m4;
    y[0] = m0 + sum1 + sum2;
    y[1] = difference1 + 2.0f * difference2;
    y[2] = sum1 + 4.0f * sum2;
    y[3] = difference1 + 8.0f * difference2 + m5;
  }
  static void transformOutput(const Vector& m0, const Vector& m1, const Vector& m2,
                              const Vector& m3, const Vector& m4, const Vector& m5,
                              Vector (&y)[2]) {
    y[0] = m0 + (m1 + m2) + (m3 + m4);
    y[1] = (m1 - m2) + 2.0f * (m3 - m4) + m5;
  }

  template <int Size>
  static void winogradInput(const float* x, int vectors, float* v, std::size_t stride) {
    constexpr int groups = (kTile + Size - 1) / Size;
    const std::size_t row = std::size_t{1} * vectors * Lanes * Size;
    for (int i = 0; i < vectors; ++i, x += Lanes * Size, v += Lanes) {
      Vector tile[kTile][kTile];
      for (int r = 0; r < kTile; ++r) {
        for (int g = 0; g < groups; ++g) {
          Vector columns[Size];
          loadColumns(x + (g * kTile + r) * row, columns);
          for (int c = 0; c < Size && g * Size + c < kTile; ++c) tile[r][g * Size + c] = columns[c];
        }
      }
      for (int c = 0; c < kTile; ++c) {
        Vector t[kTile];
        transformInput(tile[0][c], tile[1][c], tile[2][c], tile[3][c], tile[4][c], tile[5][c], t);
        for (int r = 0; r < kTile; ++r) tile[r][c] = t[r];
      }
      for (int r = 0; r < kTile; ++r) {
        Vector t[kTile];
        transformInput(tile[r][0], tile[r][1], tile[r][2], tile[r][3], tile[r][4], tile[r][5], t);
        for (int c = 0; c < kTile; ++c) store(t[c], v + (r * kTile + c) * stride);
      }
    }
  }

  template <int Size>
  static void winogradOutput(const float* m, int vectors, float* y) {
    const std::size_t width = std::size_t{1} * vectors * Lanes;
    for (int i = 0; i < vectors; ++i, m += Lanes, y += Lanes * Size) {
      Vector tile[Size][kTile];
      for (int c = 0; c < kTile; ++c) {
        Vector in[kTile], out[Size];
        for (int r = 0; r < kTile; ++r) load(m + (r * kTile + c) * width, in[r]);
        transformOutput(in[0], in[1], in[2], in[3], in[4], in[5], out);
        for (int r = 0; r < Size; ++r) tile[r][c] = out[r];
      }
      for (int r = 0; r < Size; ++r) {
        Vector out[Size];
        transformOutput(tile[r][0], tile[r][1], tile[r][2], tile[r][3], tile[r][4], tile[r][5],
                        out);
        storeColumns(out, y + r * width * Size);
      }
    }
  }

  template <int A, int B>
  static void dotBlock(std::size_t size, const float* a, std::size_t aStride, const float* b,
                       std::size_t bStride, float* sums, std::size_t stride) {
    Vector sum[A][B] = {};
    float rest[A][B] = {};
    std::size_t d = 0;
    for (; d + Lanes <= size; d += Lanes) {
      Vector right[B];
      for (int j = 0; j < B; ++j) load(b + j * bStride + d, right[j]);
      for (int i = 0; i < A; ++i) {
        Vector left;
        load(a + i * aStride + d, left);
        for (int j = 0; j < B; ++j) sum[i][j] += left * right[j];
      }
    }
    for (; d < size; ++d) {
      for (int i = 0; i < A; ++i) {
        for (int j = 0; j < B; ++j) rest[i][j] += a[i * aStride + d] * b[j * bStride + d];
      }
    }
    for (int i = 0; i < A; ++i) {
      for (int j = 0; j < B; ++j) {
        for (int lane = 0; lane < Lanes; ++lane) rest[i][j] += sum[i][j][lane];
        sums[i * stride + j] = rest[i][j];
      }
    }
  }

  template <int A>
  static void dotRows(std::size_t size, const float* a, std::size_t aStride, const float* b,
                      std::size_t bStride, int bCount, float* sums, std::size_t stride) {
    int j = 0;
    for (; j + 4 <= bCount; j += 4) {
      dotBlock<A, 4>(size, a, aStride, b + j * bStride, bStride, sums + j, stride);
    }
    for (; j < bCount; ++j) {
      dotBlock<A, 1>(size, a, aStride, b + j * bStride, bStride, sums + j, stride);
    }
  }

  /// Blocks of a height whose sums fit the registers, four wide.
  static void dotProducts(std::size_t size, const float* a, std::size_t aStride, int aCount,
                          const float* b, std::size_t bStride, int bCount, float* sums,
                          std::size_t stride) {
    constexpr int height = Rows * 3 / 4;
    int i = 0;
    for (; i + height <= aCount; i += height) {
      dotRows<height>(size, a + i * aStride, aStride, b, bStride, bCount, sums + i * stride,
                      stride);
    }
    for (; i < aCount; ++i) {
      dotRows<1>(size, a + i * aStride, aStride, b, bStride, bCount, sums + i * stride, stride);
    }
  }

  static constexpr VectorCode table = {
      Lanes,
      Rows,
      {multiply<1>, multiply<2>, multiply<3>},
      multiplyNarrow,
      gather,
      storeRows,
      {winogradInput<4>, winogradInput<2>},
      {winogradOutput<4>, winogradOutput<2>},
      dotProducts,
  };
};

}  // namespace
}  // namespace detail
}  // namespace host_device
