/// @file
/// Winograd's minimal filtering on planar tensors. The input is cut into overlapping 6 x 6 tiles;
/// transformed, a convolution of tiles is 36 products of matrices, (output channels, channels) by
/// (channels, tiles), which takes a quarter of the multiplications for 3 x 3 and about a third for
/// 5 x 5.
#include <omp.h>

#include <algorithm>
#include <cstring>

#include "convolution.h"

namespace host_device {
namespace detail {
namespace {

/// Transformed tiles of more bytes would leave the cache before they are used ...
constexpr std::size_t kChunkBytes = std::size_t{4} << 20;
/// ... but for fewer tiles it is not worth to read all of a filter.
constexpr std::size_t kLeastVectors = 2 * kWidest;

/// Which of the vector code's two transforms fits the filter.
int sizeIndex(const Problem& problem) { return problem.vertical.kernel == 3 ? 0 : 1; }
int outputsOf(const Problem& problem) { return kWinogradSizes[sizeIndex(problem)]; }

bool supportsWinograd(const Problem& problem) {
  const auto supports = [](const Axis& axis) {
    return axis.stride == 1 && (axis.kernel == 3 || axis.kernel == 5);
  };
  return supports(problem.vertical) && supports(problem.horizontal) &&
         problem.vertical.kernel == problem.horizontal.kernel;
}

bool winogradPays(const Problem& problem) {
  const int outputs = outputsOf(problem);
  const std::size_t tiles = dividedUp(problem.vertical.output, outputs) *
                            dividedUp(problem.horizontal.output, outputs) * problem.n;
  return problem.c >= 8 && problem.k >= 8 && tiles >= 8;
}

/// Packed as [frequency][row group][channel][row].
void packWinograd(const Problem& problem, const float* w, float* packed) {
  // Row i: the powers of the i-th point, scaled; the last point is infinity.
  constexpr float points[] = {0, 1, -1, 2, -2};
  constexpr float scales[] = {1.0f / 4, -1.0f / 6, -1.0f / 6, 1.0f / 24, 1.0f / 24};
  constexpr int widest = 5;
  const int kernel = problem.vertical.kernel;
  float transform[kTile][widest] = {};
  for (int i = 0; i < kTile - 1; ++i) {
    float power = scales[i];
    for (int j = 0; j < kernel; ++j, power *= points[i]) transform[i][j] = power;
  }
  transform[kTile - 1][kernel - 1] = 1.0f;

  const int rows = vectorCode().rows;
  const std::size_t groups = problem.rowGroups();
  const std::size_t frequency = groups * problem.c * rows;
#pragma omp parallel for schedule(static)
  for (std::size_t group = 0; group < groups; ++group) {
    for (int c = 0; c < problem.c; ++c) {
      float* const to = packed + (group * problem.c + c) * rows;
      float filter[widest][widest][kMostRows] = {}, half[kTile][widest][kMostRows] = {};
      const int filled = std::min<int>(rows, problem.k - static_cast<int>(group) * rows);
      for (int row = 0; row < filled; ++row) {
        const float* from = w + ((group * rows + row) * problem.c + c) * kernel * kernel;
        for (int u = 0; u < kernel; ++u) {
          for (int v = 0; v < kernel; ++v) filter[u][v][row] = *from++;
        }
      }
      for (int i = 0; i < kTile; ++i) {
        for (int u = 0; u < kernel; ++u) {
          for (int v = 0; v < kernel; ++v) {
            for (int row = 0; row < kMostRows; ++row) {
              half[i][v][row] += transform[i][u] * filter[u][v][row];
            }
          }
        }
      }
      for (int i = 0; i < kTile; ++i) {
        for (int j = 0; j < kTile; ++j) {
          float sum[kMostRows] = {};
          for (int v = 0; v < kernel; ++v) {
            for (int row = 0; row < kMostRows; ++row) sum[row] += transform[j][v] * half[i][v][row];
          }
          std::copy_n(sum, rows, to + (i * kTile + j) * frequency);
        }
      }
    }
  }
}

/// A row of neighbouring tiles of one image, and its place in a panel.
struct Strip {
  int image, tileRow, tileColumn, to, count;
};

/// The tiles of a batch in one sequence: those of an image row by row, image by image.
class Tiles {
 public:
  explicit Tiles(const Problem& problem)
      : outputs(outputsOf(problem)),
        perRow(static_cast<int>(dividedUp(problem.horizontal.output, outputs))),
        perImage(perRow * static_cast<int>(dividedUp(problem.vertical.output, outputs))),
        count(std::size_t{1} * perImage * problem.n) {}

  /// Calls visit(strip) for the strips of tiles [begin, end).
  template <class Visit>
  void forStrips(std::size_t begin, std::size_t end, const Visit& visit) const {
    end = std::min(end, count);
    for (std::size_t tile = begin; tile < end;) {
      const int inImage = static_cast<int>(tile % perImage);
      const int column = inImage % perRow;
      const int length = static_cast<int>(std::min<std::size_t>(perRow - column, end - tile));
      visit(Strip{static_cast<int>(tile / perImage), inImage / perRow, column,
                  static_cast<int>(tile - begin), length});
      tile += length;
    }
  }

  const int outputs, perRow, perImage;
  const std::size_t count;
};

/// Copies `count` elements of a row from column `begin` on, zeros outside of it.
void copyPadded(const float* row, int width, int begin, int count, float* to) {
  const int first = std::clamp(-begin, 0, count), last = std::clamp(width - begin, first, count);
  std::fill_n(to, first, 0.0f);
  std::copy(row + begin + first, row + begin + last, to + first);
  std::fill(to + last, to + count, 0.0f);
}

/// Gathers what a strip's tiles see of a plane, in the form that the transform takes.
void gather(const Problem& problem, const Tiles& tiles, const Strip& strip, const float* plane,
            std::size_t panelTiles, float* rows) {
  const Axis &v = problem.vertical, &h = problem.horizontal;
  const int outputs = tiles.outputs;
  const std::size_t row = panelTiles * outputs;
  for (int first = 0; first < kTile; first += outputs) {
    for (int r = 0; r < kTile; ++r, rows += row) {
      const int y = strip.tileRow * outputs + r - v.pad;
      const int x = strip.tileColumn * outputs + first - h.pad;
      float* const to = rows + strip.to * outputs;
      if (y < 0 || y >= v.input) {
        std::fill_n(to, strip.count * outputs, 0.0f);
      } else {
        copyPadded(plane + std::size_t{1} * y * h.input, h.input, x, strip.count * outputs, to);
      }
    }
  }
}

/// Stores a strip's outputs to their plane; what lies beyond its edges is dropped.
void scatter(const Problem& problem, const Tiles& tiles, const Strip& strip, const float* rows,
             std::size_t panelTiles, const float* bias, float* plane) {
  const Axis &v = problem.vertical, &h = problem.horizontal;
  const int outputs = tiles.outputs;
  const int y = strip.tileRow * outputs, x = strip.tileColumn * outputs;
  vectorCode().store(rows + strip.to * outputs, panelTiles * outputs,
                     std::min(outputs, v.output - y), std::min(strip.count * outputs, h.output - x),
                     bias, 0, plane + std::size_t{1} * y * h.output + x, h.output);
}

/// The transformed tiles of one chunk. Panels of up to three vectors of tiles follow each other.
class Chunk {
 public:
  Chunk(const Problem& problem, const Operands& operands, const float* filter)
      : problem_(problem),
        operands_(operands),
        filter_(filter),
        tiles_(problem),
        groups_(problem.rowGroups()) {
    Scratch scratch(operands);
    const std::size_t fixed = floats(problem, 0), each = floats(problem, 1) - fixed;
    const std::size_t wanted = std::max(kChunkBytes / sizeof(float) / each, kLeastVectors);
    vectors_ = dividedUp(tiles_.count, code_.lanes);
    chunks_ = dividedUp(vectors_, std::min(wanted, (scratch.floatsLeft() - fixed) / each));
    const std::size_t chunkTiles = dividedUp(vectors_, chunks_) * code_.lanes;
    frequencyStride_ = Scratch::lines(chunkTiles * problem.c) / Scratch::line % 2
                           ? Scratch::lines(chunkTiles * problem.c)
                           : Scratch::lines(chunkTiles * problem.c) + Scratch::line;
    input_ = scratch.take(kFrequencies * frequencyStride_);
    output_ = scratch.take(kFrequencies * chunkTiles * groups_ * code_.rows);
  }

  /// Floats of workspace for chunks of `vectors` vectors of tiles.
  static std::size_t floats(const Problem& problem, std::size_t vectors) {
    const VectorCode& code = vectorCode();
    const std::size_t channels = problem.c + problem.rowGroups() * code.rows;
    return kFrequencies * (vectors * code.lanes * channels + 2 * Scratch::line);
  }

  void run() const {
#pragma omp parallel
    {
      const std::size_t thread = omp_get_thread_num(), threads = omp_get_num_threads();
      for (std::size_t chunk = 0; chunk < chunks_; ++chunk) {
        const Range vectors = part(vectors_, chunk, chunks_);
        transformInputs(vectors, thread, threads);
#pragma omp barrier
        multiply(vectors, thread, threads);
#pragma omp barrier
        transformOutputs(vectors, thread, threads);
      }
    }
  }

 private:
  struct Panel {
    std::size_t start;  ///< in vectors from the start of the chunk
    int vectors;
    std::size_t firstTile;
  };
  static std::size_t panelCount(Range vectors) {
    return dividedUp(vectors.end - vectors.begin, kWidest);
  }
  Panel panel(Range vectors, std::size_t index) const {
    const Range own = part(vectors.end - vectors.begin, index, panelCount(vectors));
    return {own.begin, static_cast<int>(own.end - own.begin),
            (vectors.begin + own.begin) * code_.lanes};
  }
  std::size_t tilesOf(const Panel& panel) const {
    return std::size_t{1} * panel.vectors * code_.lanes;
  }
  template <class Visit>
  void forStrips(const Panel& panel, const Visit& visit) const {
    tiles_.forStrips(panel.firstTile, panel.firstTile + tilesOf(panel), visit);
  }
  float* inputOf(const Panel& panel) const {
    return input_ + panel.start * code_.lanes * problem_.c;
  }
  float* outputOf(const Panel& panel) const {
    return output_ + panel.start * code_.lanes * kFrequencies * groups_ * code_.rows;
  }

  void transformInputs(Range vectors, std::size_t thread, std::size_t threads) const {
    alignas(64) float rows[rowFloats] = {};
    const Range own = part(panelCount(vectors) * problem_.c, thread, threads);
    for (std::size_t i = own.begin; i < own.end; ++i) {
      const Panel at = panel(vectors, i / problem_.c);
      const std::size_t c = i % problem_.c, width = tilesOf(at);
      forStrips(at, [&](const Strip& strip) {
        const std::size_t plane = std::size_t{1} * strip.image * problem_.c + c;
        gather(problem_, tiles_, strip, operands_.x + plane * problem_.inputPlane(), width, rows);
      });
      code_.winogradInput[sizeIndex(problem_)](rows, at.vectors, inputOf(at) + c * width,
                                               frequencyStride_);
    }
  }

  void multiply(Range vectors, std::size_t thread, std::size_t threads) const {
    const Range own = part(kFrequencies * groups_, thread, threads);
    for (std::size_t begin = own.begin; begin < own.end;) {
      const std::size_t frequency = begin / groups_;
      const std::size_t end = std::min(own.end, (frequency + 1) * groups_);
      for (std::size_t p = 0; p < panelCount(vectors); ++p) {
        const Panel at = panel(vectors, p);
        const std::size_t width = tilesOf(at);
        const float* const input = inputOf(at) + frequency * frequencyStride_;
        for (std::size_t i = begin; i < end; ++i) {
          float* const output =
              outputOf(at) + (i % groups_ * code_.rows * kFrequencies + frequency) * width;
          code_.multiply[at.vectors - 1](problem_.c, filter_ + i * problem_.c * code_.rows, input,
                                         output, kFrequencies * width);
        }
      }
      begin = end;
    }
  }

  void transformOutputs(Range vectors, std::size_t thread, std::size_t threads) const {
    alignas(64) float rows[rowFloats];
    const Range own = part(panelCount(vectors) * problem_.k, thread, threads);
    for (std::size_t i = own.begin; i < own.end; ++i) {
      const Panel at = panel(vectors, i / problem_.k);
      const std::size_t k = i % problem_.k, width = tilesOf(at);
      code_.winogradOutput[sizeIndex(problem_)](outputOf(at) + k * kFrequencies * width, at.vectors,
                                                rows);
      forStrips(at, [&](const Strip& strip) {
        const std::size_t plane = std::size_t{1} * strip.image * problem_.k + k;
        scatter(problem_, tiles_, strip, rows, width, operands_.bias ? operands_.bias + k : nullptr,
                operands_.y + plane * problem_.outputPlane());
      });
    }
  }

  static constexpr int rowFloats = 2 * kTile * 4 * kWidest * kMostLanes;

  const Problem& problem_;
  const Operands& operands_;
  const float* filter_;
  const VectorCode& code_ = vectorCode();
  const Tiles tiles_;
  const std::size_t groups_;
  std::size_t vectors_, chunks_, frequencyStride_;
  float *input_, *output_;
};

std::size_t winogradWorkspace(const Problem& problem) {
  return Scratch::bytes(Chunk::floats(problem, 1));
}

void runWinograd(const Problem& problem, const Operands& operands) {
  const std::size_t floats = kFrequencies * problem.rowGroups() * problem.c * vectorCode().rows;
  const auto filter = packedFilter(winograd.id, problem, operands.w, floats, packWinograd);
  Chunk(problem, operands, filter->data()).run();
}

}  // namespace

const Algorithm winograd = {CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED, supportsWinograd,
                            winogradPays, winogradWorkspace, runWinograd};

}  // namespace detail
}  // namespace host_device
