/// @file
/// All that computes, as a table of functions for each instruction set. The units that fill the
/// tables are compiled once for each (../CMakeLists.txt), for what they work on, vectors and tiles
/// that just fit the registers, is not the same size everywhere.
///
/// Where two units hold the same inline function or instance of a template, the linker keeps one
/// of them: if that is the one compiled for AVX-512, all others run it, too. So what these units
/// define is their own (in an unnamed namespace), but for their tables, and they call nothing of
/// the C++ library. tests/instruction_sets_test.sh checks that.
#pragma once

#include <cstddef>

namespace host_device {

/// One direction of a convolution or of pooling.
struct Axis {
  int input, kernel, pad, stride, output;
};

/// Both sizes of Winograd's minimal filtering work on 6 x 6 tiles, hence on 36 products.
constexpr int kTile = 6;
constexpr int kFrequencies = kTile * kTile;
/// Outputs in a row of a tile, for filters of 3 x 3 and of 5 x 5.
constexpr int kWinogradSizes[] = {4, 2};
/// Vectors in the widest panel of columns that `multiply` takes.
constexpr int kWidest = 3;
/// No instruction set has more floats in a vector, or rows that `multiply` computes.
constexpr int kMostLanes = 16;
constexpr int kMostRows = 8;
/// Rows that pooling combines before it combines their columns: a vector can be read again only
/// some time after other vectors have written its parts.
constexpr int kPoolingRows = 8;

/// Part of a row that is contiguous both where it comes from and in the panel.
struct Run {
  std::size_t from;
  int to, count;
};

/// Matrix products and what convolutions do around them.
struct Products {
  int lanes;  ///< floats in a vector
  int rows;   ///< rows that `multiply` computes

  /// c[r * stride + j] = sum over d of a[r * aRow + d * aStep] * b[d * width + j] for all `rows`
  /// rows and `width` = (index + 1) * lanes columns; with a bias, plus bias[r], and rectified, a
  /// NaN becoming 0.
  void (*multiply[kWidest])(std::size_t depth, const float* a, std::size_t aRow, std::size_t aStep,
                            const float* b, const float* bias, float* c, std::size_t stride);

  /// c[(g * rows + r) * stride] = sum over d of a[g * aGroup + d * rows + r] * b[d * bStep] for
  /// `groups` groups of `rows` rows, with the bits that `multiply` would give.
  void (*multiplyColumn)(std::size_t depth, const float* a, std::size_t aGroup, std::size_t groups,
                         const float* b, std::size_t bStep, float* c, std::size_t stride);

  /// sums[i * stride + j] = a_i * b_j for i < aCount and j < bCount, vectors of `size` floats that
  /// lie aStride and bStride apart.
  void (*dotProducts)(std::size_t size, const float* a, std::size_t aStride, int aCount,
                      const float* b, std::size_t bStride, int bCount, float* sums,
                      std::size_t stride);

  /// Copies to row i of the panel, which is `width` floats wide, the runs of x + offsets[i].
  /// @param slack whether up to a vector may be read and written past the end of a run; what is
  /// written there is repaired by the next run, so that a row's runs must come in order
  void (*gather)(const float* x, const std::size_t* offsets, int rows, const Run* runs, int count,
                 float* panel, std::size_t width, bool slack);

  /// y[r * yStride + j] = tile[r * tileStride + j] for r < rows and j < count; with a bias, plus
  /// bias[r * biasStep], and rectified, a NaN becoming 0.
  void (*store)(const float* tile, std::size_t tileStride, int rows, int count, const float* bias,
                int biasStep, float* y, std::size_t yStride);
};

/// The transforms of Winograd's minimal filtering, for each of kWinogradSizes.
struct Winograd {
  /// Transforms the filters of `rows` output channels, at least one and at most as many as
  /// `multiply` computes, of `channels` channels each. Frequency f of channel c goes to
  /// transformed + f * stride + c * (rows of `multiply`), and the last row to the places of those
  /// that are missing. Up to a vector more is written.
  void (*filter[2])(const float* w, int rows, int channels, float* transformed, std::size_t stride);
  /// Transforms `vectors` * lanes tiles. x holds, for each group of as many columns as a tile has
  /// outputs, 6 rows of these columns, tile after tile. Frequency f goes to v + f * stride.
  void (*input[2])(const float* x, int vectors, float* v, std::size_t stride);
  /// Transforms back 36 frequencies of `vectors` * lanes tiles to rows of outputs, tile after tile.
  void (*output[2])(const float* m, int vectors, float* y);
};

/// Convolution in plain loops: one output plane; x is its image, w the filter of its channel.
struct Loops {
  void (*convolvePlane)(const Axis& vertical, const Axis& horizontal, int channels, const float* x,
                        const float* w, float* y);
};

struct PoolingPlan {
  Axis vertical, horizontal;
  std::size_t pitch;  ///< floats of a row of scratch memory
  /// Positions of each window that lie inside the padded input, along each axis.
  const float *rowCounts, *columnCounts;
};

struct Pooling {
  using Pool = void (*)(const PoolingPlan& plan, std::size_t planes, const float* x, float* y,
                        float* scratch);  ///< kPoolingRows * pitch floats
  Pool largest, average;
};

struct LrnFactors {
  float alpha, beta, k;
};

/// Neighbouring elements of one channel, and the same places in all channels that count for it.
struct LrnPiece {
  const float* first;  ///< in the first of the channels that count
  int channels;
  std::size_t plane;  ///< distance between them
  const float* x;
  float* y;
  int size;
};

/// What batch normalization knows of each channel, and what it adds to the variance.
struct Statistics {
  const float *scale, *bias, *mean, *variance;
  double epsilon;
};

struct Normalization {
  /// y = x / (k + alpha * sum of the squares in the channels that count)^beta.
  void (*acrossChannels)(const LrnFactors& factors, const LrnPiece& piece);
  /// y = scale * (x - mean) / sqrt(variance + epsilon) + bias in channels [begin, end) of `images`
  /// images, which have `channels` planes of `plane` floats.
  void (*ofChannels)(const Statistics& statistics, int images, std::size_t channels,
                     std::size_t plane, std::size_t begin, std::size_t end, const float* x,
                     float* y);
};

struct Elements {
  void (*rectifyKeepingNan)(const float* x, float* y, std::size_t count);
  void (*rectifyDroppingNan)(const float* x, float* y, std::size_t count);
  /// c = alpha * a + beta * c, where a advances with c or stands still.
  void (*add)(std::size_t count, bool standsStill, float alpha, const float* a, float beta,
              float* c);
  /// Of `channels` values that lie `plane` apart; y may be x.
  void (*softmax)(int channels, std::size_t plane, const float* x, float* y);
};

struct Kernels {
  const Products& products;
  const Winograd& winograd;
  const Loops& loops;
  const Pooling& pooling;
  const Normalization& normalization;
  const Elements& elements;
};

#ifdef HOST_DEVICE_SET
/// The set that this unit is compiled for: each part of its table is a unit's.
namespace HOST_DEVICE_SET {
extern const Products products;
extern const Winograd winograd;
extern const Loops loops;
extern const Pooling pooling;
extern const Normalization normalization;
extern const Elements elements;
extern const Kernels kernels;
}  // namespace HOST_DEVICE_SET
#endif

/// The table of the instruction set in use.
const Kernels& kernels();

}  // namespace host_device
