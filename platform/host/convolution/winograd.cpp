/// @file
/// Winograd's minimal filtering on planar tensors. The input is cut into overlapping 6 x 6 tiles;
/// transformed, a convolution of tiles is 36 products of matrices, (output channels, channels) by
/// (channels, tiles), which takes a quarter of the multiplications for 3 x 3 and about a third for
/// 5 x 5.
#include <algorithm>
#include <new>
#include <utility>

#include "algorithm.h"

namespace host_device {
namespace {

/// A transformed panel of more bytes would not stay in a core's own cache beside filter and
/// products.
constexpr std::size_t kPanelBytes = std::size_t{704} << 10;
/// A transformed filter of more bytes does not stay in a cache from panel to panel.
constexpr std::size_t kFilterBytes = std::size_t{8} << 20;
/// Of a filter that is not read again from panel to panel, a thread transforms so many bytes at
/// once.
constexpr std::size_t kPieceBytes = std::size_t{2} << 20;
/// With fewer tiles, to transform the filter takes more than a fortieth of the time.
constexpr std::size_t kTilesToKeep = 256;
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
/// filter at a time, so that nothing leaves the core's cache; the threads transform the filter
/// together. Of few panels, or with a filter that is too large to be read for each of them, the
/// threads share chunks, and each transforms its part of the filter piece by piece.
///
/// The transformed filter is four times as large as a filter of 3 x 3. It is kept where there are
/// few tiles, from the second call on: who runs a network once should not wait for the memory.
class Pass {
 public:
  Pass(const Problem& problem, const Operands& operands)
      : problem_(problem),
        operands_(operands),
        tiles_(problem),
        groups_(problem.rowGroups()),
        vectors_(dividedUp(tiles_.count, kernels_.products.lanes)),
        threads_(teamSize()) {
    const std::size_t wholeFilter = filterFloats(problem, groups_);
    filterStride_ = strideOf(filterLines(problem, groups_));
    if (tiles_.count < kTilesToKeep) kept_ = keptFilter();
    Scratch scratch(operands);
    const std::size_t room = scratch.floatsLeft(), panelFloats = inputFloats(problem, 1);
    widest_ = std::clamp<std::size_t>(kPanelBytes / sizeof(float) / panelFloats, 1, kWidest);
    apart_ = panelFloats * sizeof(float) <= kPanelBytes &&
             wholeFilter * sizeof(float) <= kFilterBytes && vectors_ >= kVectorsApart * threads_ &&
             (kept_ ? 0 : wholeFilter) + threads_ * apartFloats(problem, widest_) <= room;
    piece_ = groups_;
    std::size_t pieces = kept_ ? 0 : 1;
    if (apart_) {
      chunk_ = widest_;
    } else {
      widest_ = kWidest;
      const std::size_t least = sharedFloats(problem, 1), fixed = sharedFloats(problem, 0);
      if (!kept_) {
        const std::size_t onePiece = filterFloats(problem, 1);
        threads_ = std::clamp<std::size_t>((room - least) / onePiece, 1, threads_);
        pieces = threads_;
        piece_ = std::clamp<std::size_t>(
            std::min(kPieceBytes / sizeof(float), (room - least) / pieces) / onePiece, 1,
            dividedUp(groups_, threads_));
        filterStride_ = strideOf(filterLines(problem, piece_));
      }
      const std::size_t most = std::min(room - pieces * filterFloats(problem, piece_),
                                        std::max(kChunkBytes / sizeof(float), least));
      const std::size_t fitting = (most - fixed) / (least - fixed);
      chunk_ = dividedUp(vectors_, dividedUp(vectors_, fitting));
    }
    frequencyStride_ = strideOf(linesOf(problem, chunk_));
    filters_ = scratch.take(pieces * filterFloats(problem, piece_));
    inputs_ = scratch.take(inputFloats(problem, chunk_) * (apart_ ? threads_ : 1));
    products_ = scratch.take(apart_ ? productFloats() * threads_ : 0);
  }

  /// Floats of workspace for a chunk of `vectors` vectors of tiles that threads share.
  static std::size_t sharedFloats(const Problem& problem, std::size_t vectors) {
    return inputFloats(problem, vectors) + kFrequencies * problem.rowGroups() *
                                               kernels().products.rows * vectors *
                                               kernels().products.lanes;
  }
  /// Floats of `groups` groups of rows of the transformed filter.
  static std::size_t filterFloats(const Problem& problem, std::size_t groups) {
    return kFrequencies * (filterLines(problem, groups) + 1) * Scratch::line;
  }

  void run() const {
    share(threads_, [&](const Member& member) {
      const std::size_t thread = member.index, threads = member.count;
      if (apart_) {
        if (!kept_) {
          transformFilter(part(groups_, thread, threads), filters_, 0);
          member.meet();
        }
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
    bool single;  ///< whether all tiles but the first are beyond the last of the batch
    std::size_t tiles, firstTile;
    std::size_t start;  ///< tiles from the start of the chunk
  };

  /// One frequency of a group of rows, to the end of a vector.
  static std::size_t groupFloats(const Problem& problem) {
    return Scratch::lines(std::size_t{1} * problem.c * kernels().products.rows);
  }
  /// Cache lines of one frequency of `groups` groups of rows, and of `vectors` vectors of tiles.
  static std::size_t filterLines(const Problem& problem, std::size_t groups) {
    return groups * groupFloats(problem) / Scratch::line;
  }
  static std::size_t linesOf(const Problem& problem, std::size_t vectors) {
    return vectors *
           dividedUp(std::size_t{1} * kernels().products.lanes * problem.c, Scratch::line);
  }
  /// The distance between frequencies is an odd number of lines, lest all of them compete for the
  /// same places in the cache. Where memory is counted, one line more than needed allows for that.
  static std::size_t strideOf(std::size_t lines) { return (lines | 1) * Scratch::line; }
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

  /// A single tile behind whole vectors has a panel of its own: seven rows of seven tiles, which
  /// are the map of 28 x 28, fill vectors of 8 and of 16 but for one tile.
  bool endsInSingle(Range chunk) const {
    return chunk.end == vectors_ && tiles_.count % kernels_.products.lanes == 1;
  }
  std::size_t panelCount(Range chunk) const {
    const std::size_t singles = endsInSingle(chunk) ? 1 : 0;
    return dividedUp(chunk.end - chunk.begin - singles, widest_) + singles;
  }
  Panel panel(Range chunk, std::size_t index) const {
    const std::size_t singles = endsInSingle(chunk) ? 1 : 0, wide = panelCount(chunk) - singles;
    const std::size_t all = chunk.end - chunk.begin, lanes = kernels_.products.lanes;
    const bool single = index == wide;
    const Range own = single ? Range{all - 1, all} : part(all - singles, index, wide);
    const std::size_t vectors = own.end - own.begin;
    return {static_cast<int>(vectors), single, vectors * lanes, (chunk.begin + own.begin) * lanes,
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
        for (int f = 0; f < kFrequencies; ++f) {
          multiply(at, f, groups, input, whole() + group * groupFloats(problem_), products);
        }
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
    if (kept_) {
      forShare(kFrequencies, groups_, thread, threads, [&](std::size_t frequency, Range own) {
        multiplyShared(chunk, {frequency, frequency + 1}, own,
                       whole() + own.begin * groupFloats(problem_));
      });
      return;
    }
    // Each thread has a part of the groups, or, of more threads than groups, of the frequencies.
    const std::size_t parts = std::min(threads, groups_), splits = threads / parts;
    if (thread >= parts * splits) return;
    const Range own = part(groups_, thread % parts, parts);
    float* const filter = filters_ + thread * filterFloats(problem_, piece_);
    for (std::size_t begin = own.begin; begin < own.end; begin += piece_) {
      const Range groups = {begin, std::min(begin + piece_, own.end)};
      transformFilter(groups, filter, begin);
      multiplyShared(chunk, part(kFrequencies, thread / parts, splits), groups, filter);
    }
  }
  /// `filter` starts with the first of those groups.
  void multiplyShared(Range chunk, Range frequencies, Range groups, const float* filter) const {
    for (std::size_t f = frequencies.begin; f < frequencies.end; ++f) {
      for (std::size_t p = 0; p < panelCount(chunk); ++p) {
        const Panel at = panel(chunk, p);
        multiply(at, static_cast<int>(f), groups, inputs_, filter,
                 productsOf(at) + groups.begin * kernels_.products.rows * kFrequencies * at.tiles);
      }
    }
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

  /// Null for the first call, which leaves a mark that the next one finds.
  KeptFilter keptFilter() const {
    const KeptFilterKey key = {reinterpret_cast<std::intptr_t>(operands_.w),
                               winograd.id,
                               kernels_.products.lanes,
                               problem_.c,
                               problem_.k,
                               problem_.vertical.kernel,
                               problem_.horizontal.kernel};
    const auto found = findKept(operands_.w, key);
    if (found && *found) return *found;
    KeptFilter made;
    if (found) {
      HostMemory memory = allocateHost(filterFloats(problem_, groups_) * sizeof(float));
      if (!memory) throw std::bad_alloc();
      auto* const filter = static_cast<float*>(memory.get());
      forRanges(groups_, kFrequencies * groupFloats(problem_),
                [&](std::size_t begin, std::size_t end) {
                  transformFilter({begin, end}, filter, 0);
                });
      made = KeptFilter(std::shared_ptr<void>(std::move(memory)), filter);
    }
    keepFilter(operands_.w, key, made);
    return made;
  }
  const float* whole() const { return kept_ ? kept_.get() : filters_; }

  /// Those groups of rows of the filter, to `filters`, which starts with group `first`.
  void transformFilter(Range groups, float* filters, std::size_t first) const {
    const int rows = kernels_.products.rows;
    for (std::size_t group = groups.begin; group < groups.end; ++group) {
      const int k = static_cast<int>(group) * rows;
      kernels_.winograd.filter[sizeIndex(problem_)](
          operands_.w + k * problem_.depth(), std::min(rows, problem_.k - k), problem_.c,
          filters + (group - first) * groupFloats(problem_), filterStride_);
    }
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

  /// One frequency of those groups of rows; `filters` and `products` start with the first of them.
  void multiply(const Panel& at, int frequency, Range groups, const float* inputs,
                const float* filters, float* products) const {
    const float* const input = inputs + frequency * frequencyStride_ + at.start * problem_.c;
    const float* filter = filters + frequency * filterStride_;
    float* to = products + frequency * at.tiles;
    const std::size_t stride = kFrequencies * at.tiles;
    if (at.single) {
      kernels_.products.multiplyColumn(problem_.c, filter, groupFloats(problem_),
                                       groups.end - groups.begin, input, at.tiles, to, stride);
      return;
    }
    for (std::size_t group = groups.begin; group < groups.end; ++group) {
      kernels_.products.multiply[at.vectors - 1](problem_.c, filter, 1, kernels_.products.rows,
                                                 input, nullptr, to, stride);
      filter += groupFloats(problem_);
      to += kernels_.products.rows * stride;
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
  const Kernels& kernels_ = kernels();
  const Tiles tiles_;
  const std::size_t groups_, vectors_;
  std::size_t threads_;
  KeptFilter kept_;
  bool apart_;
  /// Groups of rows in a piece of the filter, vectors in a panel at most and in a chunk.
  std::size_t piece_, widest_, chunk_;
  std::size_t filterStride_, frequencyStride_;
  float *filters_, *inputs_, *products_;
};

std::size_t winogradWorkspace(const Problem& problem) {
  return Scratch::bytes(Pass::sharedFloats(problem, 1) + Pass::filterFloats(problem, 1));
}

void runWinograd(const Problem& problem, const Operands& operands) {
  Pass(problem, operands).run();
}

}  // namespace

const Algorithm winograd = {CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED, supportsWinograd,
                            winogradPays, winogradWorkspace, runWinograd};

}  // namespace host_device
