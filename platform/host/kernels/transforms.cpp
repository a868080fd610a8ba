/// @file
/// The transforms of Winograd's minimal filtering with the points 0, 1, -1, 2, -2 and infinity
/// (Lavin and Gray, Fast Algorithms for Convolutional Neural Networks, 2015, for 4 outputs).
#include "kernels.h"
#include "vectors.h"

namespace host_device {
namespace {

/// The elements of one half of a and b in turn.
template <int Half, int Count, int... I>
[[gnu::always_inline]] inline void inTurn(const typename VectorOf<Count>::type& a,
                                          const typename VectorOf<Count>::type& b,
                                          typename VectorOf<Count>::type& to, Indices<I...>) {
  to = __builtin_shufflevector(a, b, (I / 2 + Half * Count / 2 + I % 2 * Count)...);
}

/// Splits the even from the odd elements.
inline void split(const Vector& a, const Vector& b, Vector& even, Vector& odd) {
  Vector result;
  everySecond<0, kLanes>(a, b, result, IndicesBelow<kLanes>());
  everySecond<1, kLanes>(a, b, odd, IndicesBelow<kLanes>());
  even = result;
}
inline void merge(const Vector& even, const Vector& odd, Vector& a, Vector& b) {
  inTurn<0, kLanes>(even, odd, a, IndicesBelow<kLanes>());
  inTurn<1, kLanes>(even, odd, b, IndicesBelow<kLanes>());
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

/// Along one direction of a filter; the results lack their `FilterScales`.
inline void transformFilter(const Vector (&g)[3], Vector (&t)[kTile]) {
  const Vector even1 = g[0] + g[2], even2 = g[0] + 4.0f * g[2], odd2 = 2.0f * g[1];
  t[0] = g[0];
  t[1] = even1 + g[1];
  t[2] = even1 - g[1];
  t[3] = even2 + odd2;
  t[4] = even2 - odd2;
  t[5] = g[2];
}
inline void transformFilter(const Vector (&g)[5], Vector (&t)[kTile]) {
  const Vector even1 = g[0] + g[2] + g[4], odd1 = g[1] + g[3];
  const Vector even2 = g[0] + 4.0f * g[2] + 16.0f * g[4], odd2 = 2.0f * (g[1] + 4.0f * g[3]);
  t[0] = g[0];
  t[1] = even1 + odd1;
  t[2] = even1 - odd1;
  t[3] = even2 + odd2;
  t[4] = even2 - odd2;
  t[5] = g[4];
}
struct FilterScales {
  constexpr FilterScales() {
    constexpr double scales[] = {1.0 / 4, -1.0 / 6, -1.0 / 6, 1.0 / 24, 1.0 / 24, 1};
    for (int i = 0; i < kTile; ++i) {
      for (int j = 0; j < kTile; ++j) of[i][j] = static_cast<float>(scales[i] * scales[j]);
    }
  }
  float of[kTile][kTile] = {};
};

/// Transposes kRows rows of as many floats: their elements in turn, as often as kRows is halved.
[[gnu::always_inline]] inline void transpose(VectorOf<kRows>::type (&rows)[kRows]) {
#pragma GCC unroll 8
  for (int size = kRows; size > 1; size /= 2) {
    VectorOf<kRows>::type turned[kRows];
#pragma GCC unroll 8
    for (int i = 0; i < kRows / 2; ++i) {
      inTurn<0, kRows>(rows[i], rows[i + kRows / 2], turned[2 * i], IndicesBelow<kRows>());
      inTurn<1, kRows>(rows[i], rows[i + kRows / 2], turned[2 * i + 1], IndicesBelow<kRows>());
    }
#pragma GCC unroll 8
    for (int i = 0; i < kRows; ++i) rows[i] = turned[i];
  }
}

/// Puts the rows of each tap of `channels` neighbouring channels side by side: taken[tap] holds
/// them channel by channel. The last of the rows takes the places of those that are missing.
template <int Taps, int Size>
[[gnu::always_inline]] inline void takeTaps(const float* w, std::size_t row, int rows, int channels,
                                            float (&taken)[Taps][Size]) {
  const float* from[kRows];
  for (int r = 0; r < kRows; ++r) from[r] = w + (r < rows ? r : rows - 1) * row;
  const int values = channels * Taps;
  int value = 0, tap = 0, column = 0;
  const auto next = [&]() -> float* {
    float* const to = taken[tap] + column;
    if (++tap == Taps) {
      tap = 0;
      column += kRows;
    }
    return to;
  };
  for (; value + kRows <= values; value += kRows) {
    VectorOf<kRows>::type block[kRows];
#pragma GCC unroll 8
    for (int r = 0; r < kRows; ++r) load<kRows>(from[r] + value, block[r]);
    transpose(block);
#pragma GCC unroll 8
    for (const auto& each : block) store<kRows>(each, next());
  }
  for (; value < values; ++value) {
    float* const to = next();
    for (int r = 0; r < kRows; ++r) to[r] = from[r][value];
  }
  for (int i = channels * kRows; i % kLanes != 0; ++i) {  // what only fills a vector
    for (auto& each : taken) each[i] = 0;
  }
}

/// Vectors hold the rows of one or more channels.
template <int Kernel>
void filter(const float* w, int rows, int channels, float* transformed, std::size_t stride) {
  constexpr FilterScales scales;
  constexpr int taps = Kernel * Kernel, atOnce = 16;
  float taken[taps][atOnce * kRows];
  for (int first = 0; first < channels; first += atOnce) {
    const int count = channels - first < atOnce ? channels - first : atOnce;
    takeTaps(w + std::size_t{1} * first * taps, std::size_t{1} * channels * taps, rows, count,
             taken);
    for (int i = 0; i < count * kRows; i += kLanes, transformed += kLanes) {
      Vector half[kTile][Kernel];
#pragma GCC unroll 8
      for (int v = 0; v < Kernel; ++v) {
        Vector g[Kernel], t[kTile];
#pragma GCC unroll 8
        for (int u = 0; u < Kernel; ++u) load(taken[u * Kernel + v] + i, g[u]);
        transformFilter(g, t);
#pragma GCC unroll 8
        for (int u = 0; u < kTile; ++u) half[u][v] = t[u];
      }
      float* to = transformed;
#pragma GCC unroll 8
      for (int u = 0; u < kTile; ++u) {
        Vector t[kTile];
        transformFilter(half[u], t);
#pragma GCC unroll 8
        for (int v = 0; v < kTile; ++v, to += stride) {
          t[v] *= scales.of[u][v];
          store(t[v], to);
        }
      }
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
