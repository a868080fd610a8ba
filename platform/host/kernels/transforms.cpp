/// @file
/// The transforms of Winograd's minimal filtering with the points 0, 1, -1, 2, -2 and infinity
/// (Lavin and Gray, Fast Algorithms for Convolutional Neural Networks, 2015, for 4 outputs).
#include "kernels.h"
#include "vectors.h"

namespace host_device {
namespace {

/// The elements of one half of a and b in turn.
template <int Half, int... I>
inline void inTurn(const Vector& a, const Vector& b, Vector& to, Indices<I...>) {
  to = __builtin_shufflevector(a, b, (I / 2 + Half * kLanes / 2 + I % 2 * kLanes)...);
}

/// Splits the even from the odd elements.
inline void split(const Vector& a, const Vector& b, Vector& even, Vector& odd) {
  Vector result;
  everySecond<0, kLanes>(a, b, result, IndicesBelow<kLanes>());
  everySecond<1, kLanes>(a, b, odd, IndicesBelow<kLanes>());
  even = result;
}
inline void merge(const Vector& even, const Vector& odd, Vector& a, Vector& b) {
  inTurn<0>(even, odd, a, IndicesBelow<kLanes>());
  inTurn<1>(even, odd, b, IndicesBelow<kLanes>());
}

/// Reads `Size` neighbouring columns of the rows of kLanes tiles.
inline void loadColumns(const float* x, Vector (&columns)[2]) {
  Vector a, b;
  load(x, a);
  load(x + kLanes, b);
  split(a, b, columns[0], columns[1]);
}
inline void loadColumns(const float* x, Vector (&columns)[4]) {
  Vector low[2], high[2];
  loadColumns(x, low);
  loadColumns(x + 2 * kLanes, high);
  split(low[0], high[0], columns[0], columns[2]);
  split(low[1], high[1], columns[1], columns[3]);
}
inline void storeColumns(const Vector (&columns)[2], float* y) {
  Vector a, b;
  merge(columns[0], columns[1], a, b);
  store(a, y);
  store(b, y + kLanes);
}
inline void storeColumns(const Vector (&columns)[4], float* y) {
  Vector even[2], odd[2];
  merge(columns[0], columns[2], even[0], even[1]);
  merge(columns[1], columns[3], odd[0], odd[1]);
  for (int half = 0; half < 2; ++half) {
    const Vector pair[2] = {even[half], odd[half]};
    storeColumns(pair, y + half * 2 * kLanes);
  }
}

inline void transformInput(const Vector& x0, const Vector& x1, const Vector& x2, const Vector& x3,
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

inline void transformOutput(const Vector& m0, const Vector& m1, const Vector& m2, const Vector& m3,
                            const Vector& m4, const Vector& m5, Vector (&y)[4]) {
  const Vector sum1 = m1 + m2, sum2 = m3 + m4, difference1 = m1 - m2, difference2 = m3 - m4;
  y[0] = m0 + sum1 + sum2;
  y[1] = difference1 + 2.0f * difference2;
  y[2] = sum1 + 4.0f * sum2;
  y[3] = difference1 + 8.0f * difference2 + m5;
}
inline void transformOutput(const Vector& m0, const Vector& m1, const Vector& m2, const Vector& m3,
                            const Vector& m4, const Vector& m5, Vector (&y)[2]) {
  y[0] = m0 + (m1 + m2) + (m3 + m4);
  y[1] = (m1 - m2) + 2.0f * (m3 - m4) + m5;
}

/// The transform of a filter along one direction: row i holds the powers of the i-th point, scaled;
/// the last point is infinity.
template <int Kernel>
struct FilterTransform {
  constexpr FilterTransform() {
    constexpr double points[] = {0, 1, -1, 2, -2};
    constexpr double scales[] = {1.0 / 4, -1.0 / 6, -1.0 / 6, 1.0 / 24, 1.0 / 24};
    for (int i = 0; i < kTile - 1; ++i) {
      double power = scales[i];
      for (int j = 0; j < Kernel; ++j, power *= points[i]) factors[i][j] = power;
    }
    factors[kTile - 1][Kernel - 1] = 1;
  }
  double factors[kTile][Kernel] = {};
};

/// In double precision, so that only the result is rounded. A few channels at a time, so that each
/// of the 36 places that are written to gets whole cache lines.
template <int Kernel>
void filter(const float* w, int rows, int channels, float* packed, std::size_t stride) {
  typedef double Column [[gnu::vector_size(kRows * sizeof(double))]];
  constexpr FilterTransform<Kernel> transform;
  constexpr int taps = Kernel * Kernel, atOnce = 16;
  const std::size_t row = std::size_t{1} * channels * taps;
  for (int first = 0; first < channels; first += atOnce) {
    const int count = channels - first < atOnce ? channels - first : atOnce;
    float transformed[kFrequencies][atOnce * kRows];
    for (int c = 0; c < count; ++c) {
      const float* const from = w + (std::size_t{1} * first + c) * taps;
      double taken[taps][kRows] = {};
      for (int r = 0; r < rows; ++r) {
        for (int i = 0; i < taps; ++i) taken[i][r] = from[r * row + i];
      }
      Column half[kTile][Kernel];
      for (int v = 0; v < Kernel; ++v) {
        Column tap[Kernel];
        for (int u = 0; u < Kernel; ++u)
          __builtin_memcpy(&tap[u], taken[u * Kernel + v], sizeof tap[u]);
        for (int i = 0; i < kTile; ++i) {
          half[i][v] = transform.factors[i][0] * tap[0];
          for (int u = 1; u < Kernel; ++u) half[i][v] += transform.factors[i][u] * tap[u];
        }
      }
      for (int i = 0; i < kTile; ++i) {
        for (int j = 0; j < kTile; ++j) {
          Column sum = transform.factors[j][0] * half[i][0];
          for (int v = 1; v < Kernel; ++v) sum += transform.factors[j][v] * half[i][v];
          float* const to = transformed[i * kTile + j] + c * kRows;
          for (int r = 0; r < kRows; ++r) to[r] = static_cast<float>(sum[r]);
        }
      }
    }
    for (int f = 0; f < kFrequencies; ++f) {
      __builtin_memcpy(packed + f * stride + std::size_t{1} * first * kRows, transformed[f],
                       count * kRows * sizeof(float));
    }
  }
}

template <int Size>
void input(const float* x, int vectors, float* v, std::size_t stride) {
  constexpr int groups = (kTile + Size - 1) / Size;
  const std::size_t row = std::size_t{1} * vectors * kLanes * Size;
  for (int i = 0; i < vectors; ++i, x += kLanes * Size, v += kLanes) {
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
void output(const float* m, int vectors, float* y) {
  const std::size_t width = std::size_t{1} * vectors * kLanes;
  for (int i = 0; i < vectors; ++i, m += kLanes, y += kLanes * Size) {
    Vector tile[Size][kTile];
    for (int c = 0; c < kTile; ++c) {
      Vector in[kTile], out[Size];
      for (int r = 0; r < kTile; ++r) load(m + (r * kTile + c) * width, in[r]);
      transformOutput(in[0], in[1], in[2], in[3], in[4], in[5], out);
      for (int r = 0; r < Size; ++r) tile[r][c] = out[r];
    }
    for (int r = 0; r < Size; ++r) {
      Vector out[Size];
      transformOutput(tile[r][0], tile[r][1], tile[r][2], tile[r][3], tile[r][4], tile[r][5], out);
      storeColumns(out, y + r * width * Size);
    }
  }
}

}  // namespace

const Winograd HOST_DEVICE_SET::winograd = {
    {filter<3>, filter<5>}, {input<4>, input<2>}, {output<4>, output<2>}};

}  // namespace host_device
