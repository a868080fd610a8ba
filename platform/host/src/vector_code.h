/// @file
/// The innermost loops of convolutions and matrix products. They are compiled once for each
/// instruction set and reached through a table, since what they work on, vectors and tiles that
/// just fit the registers, is not the same size everywhere.
#pragma once

#include <cstddef>

namespace host_device {
namespace detail {

/// Both sizes of Winograd's minimal filtering work on 6 x 6 tiles, hence on 36 products.
constexpr int kTile = 6;
constexpr int kFrequencies = kTile * kTile;
/// Vectors in the widest block of columns that `multiply` takes.
constexpr int kWidest = 3;
/// Columns that `multiplyNarrow` takes.
constexpr int kNarrow = 4;
/// No instruction set has more floats in a vector, or rows in a packed panel.
constexpr int kMostLanes = 16;
constexpr int kMostRows = 8;

/// Outputs in a row of a tile, for filters of 3 x 3 and of 5 x 5.
constexpr int kWinogradSizes[] = {4, 2};

/// Part of a row that is contiguous both where it comes from and in the panel.
struct Run {
  std::size_t from;
  int to, count;
};

struct VectorCode {
  int lanes;  ///< floats in a vector
  int rows;   ///< rows of a packed panel of a left factor

  /// c[r * stride + j] = sum over d of a[d * rows + r] * b[d * width + j] for all `rows` rows and
  /// `width` = (index + 1) * lanes columns.
  void (*multiply[kWidest])(std::size_t depth, const float* a, const float* b, float* c,
                            std::size_t stride);

  /// The same for kNarrow columns, too few to fill a vector.
  void (*multiplyNarrow)(std::size_t depth, const float* a, const float* b, float* c,
                         std::size_t stride);

  /// Row i of the panel, of `width` floats, takes its runs from x + offsets[i]. With slack, up to a
  /// vector may be read and written past the end of each, as rows are filled in order.
  void (*gather)(const float* x, const std::size_t* offsets, int rows, const Run* runs, int count,
                 float* panel, std::size_t width, bool slack);

  /// y[r * yStride + j] = tile[r * tileStride + j] for r < rows and j < count; with a bias, plus
  /// bias[r * biasStep], and rectified, a NaN becoming 0.
  void (*store)(const float* tile, std::size_t tileStride, int rows, int count, const float* bias,
                int biasStep, float* y, std::size_t yStride);

  /// Transforms `vectors` * lanes tiles. x holds, for each group of as many columns as a tile has
  /// outputs, 6 rows of these columns, tile after tile. Frequency f goes to v + f * stride.
  void (*winogradInput[2])(const float* x, int vectors, float* v, std::size_t stride);
  /// Transforms back 36 frequencies of `vectors` * lanes tiles to rows of outputs, tile after tile.
  void (*winogradOutput[2])(const float* m, int vectors, float* y);

  /// sums[i * stride + j] = a_i * b_j for i < aCount and j < bCount, vectors of `size` floats that
  /// lie aStride and bStride apart.
  void (*dotProducts)(std::size_t size, const float* a, std::size_t aStride, int aCount,
                      const float* b, std::size_t bStride, int bCount, float* sums,
                      std::size_t stride);
};

extern const VectorCode baselineCode, avx2Code, avx512Code;

/// The table in use; at load that of this machine's best instruction set.
const VectorCode& vectorCode();

}  // namespace detail
}  // namespace host_device
