/// @file
/// Winograd's minimal filtering on planar tensors. The input is cut into overlapping 6 x 6 tiles;
/// transformed, a convolution of tiles is 36 products of matrices, (output channels, channels) by
/// (channels, tiles), which takes a quarter of the multiplications for 3 x 3 and about a third for
/// 5 x 5.
#include <algorithm>

#include "algorithm.h"

namespace host_device {
namespace {

/// A transformed panel of more bytes would not stay in a core's own cache beside filter and
/// products.
constexpr std::size_t kPanelBytes = std::size_t{704} << 10;
/// A filter of more bytes does not stay in a cache from panel to panel.
constexpr std::size_t kFilterBytes = std::size_t{8} << 20;
/// Transformed tiles of more bytes would not stay in any cache.
constexpr std::size_t kChunkBytes = std::size_t{16} << 20;

/// Which of the two transforms fits the filter.
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
  const int rows = kernels().products.rows;
  const std::size_t groups = problem.rowGroups(), group = std::size_t{1} * problem.c * rows;
  const auto transform = kernels().winograd.filter[sizeIndex(problem)];
  forRanges(groups, kFrequencies * group, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      const int first = static_cast<int>(i) * rows;
      transform(w + first * problem.depth(), std::min(rows, problem.k - first), problem.c,
                packed + i * group, groups * group);
    }
  });
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
  kernels().products.store(rows + strip.to * outputs, panelTiles * outputs,
                           std::min(outputs, v.output - y),
                           std::min(strip.count * outputs, h.output - x), bias, 0,
                           plane + std::size_t{1} * y * h.output + x, h.output);
}

/// The work on a batch: panels of up to three vectors of tiles are transformed, multiplied by the
/// filter, frequency by frequency, and transformed back.
///
/// Of many panels each thread has its own and takes them through all of this a few rows of the
/// filter at a time, so that nothing leaves the core's cache. Of few panels, or with a filter that
/// is too large to be read for each of them, the threads share chunks, and each reads a part of the
/// filter.
class Pass {
 public:
  Pass(const Problem& problem, const Operands& operands, const float* filter)
      : problem_(problem),
        operands_(operands),
        filter_(filter),
        tiles_(problem),
        groups_(problem.rowGroups()),
        vectors_(dividedUp(tiles_.count, kernels_.products.lanes)),
        threads_(teamSize()) {
    Scratch scratch(operands);
    const std::size_t room = scratch.floatsLeft(), panelFloats = inputFloats(problem, 1);
    widest_ = std::clamp<std::size_t>(kPanelBytes / sizeof(float) / panelFloats, 1, kWidest);
    apart_ = panelFloats * sizeof(float) <= kPanelBytes &&
             filterFloats(problem) * sizeof(float) <= kFilterBytes &&
             vectors_ >= kVectorsApart * threads_ &&
             threads_ * apartFloats(problem, widest_) <= room;
    if (apart_) {
      chunk_ = widest_;
    } else {
      widest_ = kWidest;
      const std::size_t most =
          std::min(room, std::max(kChunkBytes / sizeof(float), sharedFloats(problem, 1)));
      const std::size_t fixed = sharedFloats(problem, 0);
      const std::size_t fitting = (most - fixed) / (sharedFloats(problem, 1) - fixed);
      chunk_ = dividedUp(vectors_, dividedUp(vectors_, fitting));
    }
    // An odd number of cache lines, lest all frequencies compete for the same places in the cache.
    frequencyStride_ = (linesOf(problem, chunk_) | 1) * Scratch::line;
    inputs_ = scratch.take(inputFloats(problem, chunk_) * (apart_ ? threads_ : 1));
    products_ = scratch.take(apart_ ? productFloats() * threads_ : 0);
  }

  static std::size_t filterFloats(const Problem& problem) {
    return kFrequencies * problem.rowGroups() * problem.c * kernels().products.rows;
  }

  /// Floats of workspace for a chunk of `vectors` vectors of tiles that threads share.
  static std::size_t sharedFloats(const Problem& problem, std::size_t vectors) {
    return inputFloats(problem, vectors) + kFrequencies * problem.rowGroups() *
                                               kernels().products.rows * vectors *
                                               kernels().products.lanes;
  }

  void run() const {
    share(threads_, [&](const Member& member) {
      const std::size_t thread = member.index, threads = member.count;
      if (apart_) {
        runApart(part(vectors_, thread, threads),
                 inputs_ + thread * kFrequencies * frequencyStride_,
                 products_ + thread * productFloats());
        return;
      }
      for (std::size_t begin = 0; begin < vectors_; begin += chunk_) {
        const Range chunk = {begin, std::min(begin + chunk_, vectors_)};
        transformShared(chunk, thread, threads);
        member.meet();
        multiplyShared(chunk, thread, threads);
        member.meet();
        transformBackShared(chunk, thread, threads);
      }
    });
  }

 private:
  /// With fewer vectors of tiles for each thread, threads had better share chunks.
  static constexpr std::size_t kVectorsApart = 8;
  /// Groups of rows whose products with one panel are transformed back from the cache.
  static constexpr std::size_t kGroupsAtOnce = 2;

  struct Panel {
    int vectors;
    std::size_t tiles, firstTile;
    std::size_t start;  ///< tiles from the start of the chunk
  };

  /// Cache lines of one frequency of `vectors` vectors of tiles.
  static std::size_t linesOf(const Problem& problem, std::size_t vectors) {
    return vectors *
           dividedUp(std::size_t{1} * kernels().products.lanes * problem.c, Scratch::line);
  }
  /// One line more than needed allows for an odd distance between frequencies.
  static std::size_t inputFloats(const Problem& problem, std::size_t vectors) {
    return kFrequencies * (linesOf(problem, vectors) + 1) * Scratch::line;
  }

  /// The products that a thread has at a time of a panel of its own.
  static std::size_t productFloats() {
    return kGroupsAtOnce * kernels().products.rows * kFrequencies * kWidest *
           kernels().products.lanes;
  }
  /// What a thread needs for panels of its own, `vectors` wide.
  static std::size_t apartFloats(const Problem& problem, std::size_t vectors) {
    return inputFloats(problem, vectors) + productFloats();
  }

  std::size_t panelCount(Range chunk) const { return dividedUp(chunk.end - chunk.begin, widest_); }
  Panel panel(Range chunk, std::size_t index) const {
    const Range own = part(chunk.end - chunk.begin, index, panelCount(chunk));
    const std::size_t lanes = kernels_.products.lanes, vectors = own.end - own.begin;
    return {static_cast<int>(vectors), vectors * lanes, (chunk.begin + own.begin) * lanes,
            own.begin * lanes};
  }
  template <class Visit>
  void forStrips(const Panel& panel, const Visit& visit) const {
    tiles_.forStrips(panel.firstTile, panel.firstTile + panel.tiles, visit);
  }

  void runApart(Range own, float* input, float* products) const {
    for (std::size_t p = 0; p < panelCount(own); ++p) {
      Panel at = panel(own, p);
      at.start = 0;
      transform(at, {0, std::size_t{1} * problem_.c}, input);
      const std::size_t atOnce = kGroupsAtOnce * kWidest / at.vectors;
      for (std::size_t group = 0; group < groups_; group += atOnce) {
        const Range groups = {group, std::min(group + atOnce, groups_)};
        for (int f = 0; f < kFrequencies; ++f) multiply(at, f, groups, input, products);
        transformBack(at, rowsOf(groups), products);
      }
    }
  }

  void transformShared(Range chunk, std::size_t thread, std::size_t threads) const {
    const std::size_t channels = problem_.c;
    forShare(panelCount(chunk), channels, thread, threads,
             [&](std::size_t p, Range own) { transform(panel(chunk, p), own, inputs_); });
  }
  void multiplyShared(Range chunk, std::size_t thread, std::size_t threads) const {
    forShare(kFrequencies, groups_, thread, threads, [&](std::size_t frequency, Range own) {
      for (std::size_t p = 0; p < panelCount(chunk); ++p) {
        const Panel at = panel(chunk, p);
        multiply(at, static_cast<int>(frequency), own, inputs_,
                 productsOf(at) + own.begin * kernels_.products.rows * kFrequencies * at.tiles);
      }
    });
  }
  void transformBackShared(Range chunk, std::size_t thread, std::size_t threads) const {
    const std::size_t rows = problem_.k;
    forShare(panelCount(chunk), rows, thread, threads, [&](std::size_t p, Range own) {
      const Panel at = panel(chunk, p);
      transformBack(at, own, productsOf(at) + own.begin * kFrequencies * at.tiles);
    });
  }

  /// Calls visit(i, range of j) for a thread's share of all pairs 0 <= i < rows, 0 <= j < length.
  template <class Visit>
  static void forShare(std::size_t rows, std::size_t length, std::size_t thread,
                       std::size_t threads, const Visit& visit) {
    const Range own = part(rows * length, thread, threads);
    for (std::size_t begin = own.begin, end; begin < own.end; begin = end) {
      const std::size_t row = begin / length, first = row * length;
      end = std::min(own.end, first + length);
      visit(row, Range{begin - first, end - first});
    }
  }

  float* productsOf(const Panel& at) const {
    return products_ + at.start * kFrequencies * groups_ * kernels_.products.rows;
  }
  Range rowsOf(Range groups) const {
    return {groups.begin * kernels_.products.rows,
            std::min<std::size_t>(groups.end * kernels_.products.rows, problem_.k)};
  }

  /// Those channels of a panel, to their place in the chunk.
  void transform(const Panel& at, Range channels, float* inputs) const {
    // Two groups of 4 columns, or three of 2. Tiles beyond the last one stay zero.
    alignas(64) float rows[2 * kTile * 4 * kWidest * kMostLanes] = {};
    for (std::size_t c = channels.begin; c < channels.end; ++c) {
      forStrips(at, [&](const Strip& strip) {
        const std::size_t plane = std::size_t{1} * strip.image * problem_.c + c;
        gather(problem_, tiles_, strip, operands_.x + plane * problem_.inputPlane(), at.tiles,
               rows);
      });
      kernels_.winograd.input[sizeIndex(problem_)](
          rows, at.vectors, inputs + at.start * problem_.c + c * at.tiles, frequencyStride_);
    }
  }

  /// One frequency of those groups of rows; `products` starts with the first of them.
  void multiply(const Panel& at, int frequency, Range groups, const float* inputs,
                float* products) const {
    const std::size_t groupFloats = std::size_t{1} * problem_.c * kernels_.products.rows;
    const float* const input = inputs + frequency * frequencyStride_ + at.start * problem_.c;
    const float* filter = filter_ + (frequency * groups_ + groups.begin) * groupFloats;
    float* to = products + frequency * at.tiles;
    for (std::size_t group = groups.begin; group < groups.end; ++group) {
      kernels_.products.multiply[at.vectors - 1](problem_.c, filter, input, nullptr, to,
                                                 kFrequencies * at.tiles);
      filter += groupFloats;
      to += kernels_.products.rows * kFrequencies * at.tiles;
    }
  }

  /// Those output channels of a panel; `products` starts with the first of them.
  void transformBack(const Panel& at, Range channels, const float* products) const {
    alignas(64) float rows[4 * 4 * kWidest * kMostLanes];
    for (std::size_t k = channels.begin; k < channels.end; ++k) {
      kernels_.winograd.output[sizeIndex(problem_)](products, at.vectors, rows);
      products += kFrequencies * at.tiles;
      forStrips(at, [&](const Strip& strip) {
        const std::size_t plane = std::size_t{1} * strip.image * problem_.k + k;
        scatter(problem_, tiles_, strip, rows, at.tiles,
                operands_.bias ? operands_.bias + k : nullptr,
                operands_.y + plane * problem_.outputPlane());
      });
    }
  }

  const Problem& problem_;
  const Operands& operands_;
  const float* filter_;
  const Kernels& kernels_ = kernels();
  const Tiles tiles_;
  const std::size_t groups_, vectors_, threads_;
  bool apart_;
  std::size_t widest_, chunk_, frequencyStride_;
  float *inputs_, *products_;
};

std::size_t winogradWorkspace(const Problem& problem) {
  return Scratch::bytes(Pass::sharedFloats(problem, 1));
}

void runWinograd(const Problem& problem, const Operands& operands) {
  const auto filter =
      packedFilter(winograd.id, problem, operands.w, Pass::filterFloats(problem), packWinograd);
  Pass(problem, operands, filter.get()).run();
}

}  // namespace

const Algorithm winograd = {CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED, supportsWinograd,
                            winogradPays, winogradWorkspace, runWinograd};

}  // namespace host_device
