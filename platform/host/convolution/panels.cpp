/// @file
/// Convolution as a product of the filter, (output channels, depth), by columns of inputs, (depth,
/// outputs), on planar tensors. The columns of a few vectors of outputs at a time are gathered to a
/// panel that stays in the cache while all output channels pass over it.
#include <algorithm>

#include "algorithm.h"

namespace host_device {
namespace {

/// A thread gathers as many panels at once as stay in its second cache.
constexpr std::size_t kAtOnceBytes = std::size_t{128} << 10;
constexpr std::size_t kMostPanels = 8;
/// So few columns do not fill a vector: they are multiplied one by one.
constexpr std::size_t kNarrow = 4;

bool isPointwise(const Problem& problem) {
  const auto pointwise = [](const Axis& axis) {
    return axis.kernel == 1 && axis.stride == 1 && axis.pad == 0;
  };
  return pointwise(problem.vertical) && pointwise(problem.horizontal);
}

/// A padded copy of the input in which the inputs of neighbouring outputs are neighbours: each row
/// is split into as many phases as the stride is long. A pointwise convolution needs none.
struct Phases {
  explicit Phases(const Problem& problem)
      : v(problem.vertical),
        h(problem.horizontal),
        width(h.output - 1 + static_cast<int>(dividedUp(h.kernel, h.stride))),
        height((v.output - 1) * v.stride + v.kernel),
        row(std::size_t{1} * width * h.stride),
        plane(row * height) {}

  void copyPlane(const float* x, float* to) const {
    for (int i = 0; i < height; ++i) {
      const int y = i - v.pad;
      const bool outside = y < 0 || y >= v.input;
      const float* const from = x + std::ptrdiff_t{1} * y * h.input;
      for (int phase = 0; phase < h.stride; ++phase, to += width) {
        // Columns phase + j * stride - pad, of which [first, last) are inside.
        const int offset = h.pad - phase;
        const int first =
            std::min(width, offset > 0 ? static_cast<int>(dividedUp(offset, h.stride)) : 0);
        const int reach = h.input + offset;
        const int last =
            outside || reach <= 0
                ? first
                : std::clamp(static_cast<int>(dividedUp(reach, h.stride)), first, width);
        std::fill_n(to, first, 0.0f);
        for (int j = first; j < last; ++j) to[j] = from[j * h.stride - offset];
        std::fill(to + last, to + width, 0.0f);
      }
    }
  }

  const Axis &v, &h;
  const int width, height;
  const std::size_t row, plane;
};

/// How threads share the product: each has a part of the columns and a part of the row groups.
struct Grid {
  std::size_t columns = 1, rows = 1;

  Grid(std::size_t threads, std::size_t vectors, std::size_t groups, std::size_t height) {
    // Gathering a vector of columns takes about as long as multiplying it by four rows.
    constexpr std::size_t gathering = 4;
    std::size_t least = SIZE_MAX;
    for (std::size_t r = 1; r <= threads; ++r) {
      const std::size_t c = threads / r;
      const std::size_t cost = dividedUp(vectors, c) * (dividedUp(groups, r) * height + gathering);
      if (cost >= least) continue;
      least = cost;
      columns = c;
      rows = r;
    }
  }
};

class Product {
 public:
  Product(const Problem& problem, const Operands& operands)
      : problem_(problem), operands_(operands), phases_(problem), pointwise_(isPointwise(problem)) {
    Scratch scratch(operands);
    const std::size_t perImage = imageFloats(problem);
    const std::size_t room = scratch.floatsLeft() - fixedFloats;
    threads_ = teamSize();
    panelsAtOnce_ = std::clamp<std::size_t>(kAtOnceBytes / sizeof(float) / panelFloats(problem), 1,
                                            kMostPanels);
    if (room < perImage + threads_ * threadFloats(problem, panelsAtOnce_)) panelsAtOnce_ = 1;
    perThread_ = threadFloats(problem, panelsAtOnce_);
    threads_ = std::clamp<std::size_t>((room - perImage) / perThread_, 1, threads_);
    images_ = problem.n;
    if (perImage > 0) {
      images_ = std::clamp<std::size_t>((room - threads_ * perThread_) / perImage, 1, problem.n);
    }
    panels_ = scratch.take(threads_ * perThread_);
    copy_ = scratch.take(0);
  }

  static std::size_t leastFloats(const Problem& problem) {
    return imageFloats(problem) + threadFloats(problem, 1) + fixedFloats;
  }

  void run() const {
    for (std::size_t first = 0; first < static_cast<std::size_t>(problem_.n); first += images_) {
      const std::size_t images = std::min(images_, problem_.n - first);
      const std::size_t outputs = images * problem_.outputPlane();
      const float* const x = operands_.x + first * problem_.c * problem_.inputPlane();
      float* const y = operands_.y + first * problem_.k * problem_.outputPlane();
      const std::size_t groups = problem_.rowGroups();
      const std::size_t vectors = vectorsIn(outputs);
      const Grid grid(threads_, std::max<std::size_t>(vectors, 1), groups, products_.rows);
      share(threads_, [&](const Member& member) {
        const std::size_t thread = member.index, threads = member.count;
        if (!pointwise_) {
          const Range planes = part(images * problem_.c, thread, threads);
          for (std::size_t plane = planes.begin; plane < planes.end; ++plane) {
            phases_.copyPlane(x + plane * problem_.inputPlane(), copy_ + plane * phases_.plane);
          }
          member.meet();
        }
        // With fewer threads than were asked for, each takes the places of several.
        for (std::size_t place = thread; place < grid.columns * grid.rows; place += threads) {
          const std::size_t column = place % grid.columns;
          const Range own = part(vectors, column, grid.columns);
          const std::size_t end = std::min(outputs, own.end * products_.lanes);
          multiply(pointwise_ ? x : copy_, y,
                   {own.begin * products_.lanes, column + 1 == grid.columns ? outputs : end},
                   part(groups, place / grid.columns, grid.rows), panels_ + thread * perThread_);
        }
      });
    }
  }

 private:
  static constexpr std::size_t widest = std::size_t{1} * kWidest * kMostLanes;
  /// A vector may be read past the end of the copy.
  static constexpr std::size_t fixedFloats = kMostLanes;

  /// Row by row, or, if it is narrow, column by column.
  struct Panel {
    bool narrow;
    std::size_t width;
    float* data;
    int inputRuns, outputRuns;
    Run inputs[widest], outputs[widest];
  };

  static std::size_t imageFloats(const Problem& problem) {
    return isPointwise(problem) ? 0 : problem.c * Phases(problem).plane;
  }
  /// A vector may be written past its end.
  static std::size_t panelFloats(const Problem& problem) {
    return problem.depth() * kWidest * kernels().products.lanes + kMostLanes;
  }
  /// Panels and a tile of results.
  static std::size_t threadFloats(const Problem& problem, std::size_t panelsAtOnce) {
    return Scratch::lines(panelFloats(problem) * panelsAtOnce) + kMostRows * widest;
  }

  /// A few columns that are left get a panel of their own, which is narrower than a vector.
  std::size_t vectorsIn(std::size_t columns) const {
    return columns / products_.lanes + (columns % products_.lanes > kNarrow ? 1 : 0);
  }

  void multiply(const float* x, float* y, Range columns, Range groups, float* scratch) const {
    const std::size_t depth = problem_.depth();
    float* const tile = scratch + perThread_ - kMostRows * widest;
    const std::size_t lanes = products_.lanes, count = columns.end - columns.begin;
    const std::size_t vectors = vectorsIn(count), wide = dividedUp(vectors, kWidest);
    const std::size_t all = wide + (count > vectors * lanes ? 1 : 0);
    const std::size_t rounds = dividedUp(all, panelsAtOnce_);
    for (std::size_t round = 0; round < rounds; ++round) {
      Panel panels[kMostPanels];
      float* data = scratch;
      std::size_t filled = 0;
      const Range inRound = part(all, round, rounds);
      for (std::size_t p = inRound.begin; p < inRound.end; ++p) {
        const Range own = p < wide ? part(vectors, p, wide) : Range{vectors, vectors};
        Panel& panel = panels[filled++];
        panel.narrow = p == wide;
        panel.width = panel.narrow ? count - vectors * lanes : (own.end - own.begin) * lanes;
        panel.data = data;
        data += panel.width * depth + kMostLanes;
        const std::size_t begin = columns.begin + own.begin * lanes;
        describeRuns(begin, std::min(columns.end, begin + panel.width), panel);
      }
      gather(x, panels, filled);
      for (std::size_t p = 0; p < filled; ++p) {
        for (std::size_t group = groups.begin; group < groups.end; ++group) {
          multiply(panels[p], group, y, tile);
        }
      }
    }
  }

  /// The outputs of a panel in one group of channels. `tile` takes the sums of those that a vector
  /// cannot be written to at once: at the end of an image, or of the channels.
  void multiply(const Panel& panel, std::size_t group, float* y, float* tile) const {
    const std::size_t depth = problem_.depth(), plane = problem_.outputPlane();
    const std::size_t k = group * products_.rows;
    const int rows = static_cast<int>(std::min<std::size_t>(products_.rows, problem_.k - k));
    const float* const filter = operands_.w + k * depth;
    const float* const bias = operands_.bias ? operands_.bias + k : nullptr;
    float* const to = y + k * plane;
    if (panel.narrow) {
      products_.dotProducts(depth, filter, depth, rows, panel.data, depth,
                            static_cast<int>(panel.width), tile, panel.width);
    } else {
      fetchOutputs(panel, to, rows);
      const Run& first = panel.outputs[0];
      const auto product = products_.multiply[panel.width / products_.lanes - 1];
      if (rows == products_.rows && first.count == static_cast<int>(panel.width)) {
        product(depth, filter, depth, 1, panel.data, bias, to + first.from, plane);
        return;
      }
      if (rows == products_.rows) {
        product(depth, filter, depth, 1, panel.data, nullptr, tile, panel.width);
      } else {  // of few rows, each takes the places of all
        for (int r = 0; r < rows; ++r)
          product(depth, filter + r * depth, 0, 1, panel.data, nullptr, tile + r * panel.width, 0);
      }
    }
    for (int i = 0; i < panel.outputRuns; ++i) {
      const Run& run = panel.outputs[i];
      products_.store(tile + run.to, panel.width, rows, run.count, bias, 1, to + run.from, plane);
    }
  }

  /// Fetches what will be written into the cache while the product is computed, instead of waiting
  /// for it then.
  void fetchOutputs(const Panel& panel, const float* y, int rows) const {
    for (int i = 0; i < panel.outputRuns; ++i) {
      const float* row = y + panel.outputs[i].from;
      for (int r = 0; r < rows; ++r, row += problem_.outputPlane()) {
        constexpr int line = Scratch::line;
        for (int j = 0; j < panel.outputs[i].count; j += line) __builtin_prefetch(row + j, 1);
      }
    }
  }

  void describeRuns(std::size_t begin, std::size_t end, Panel& panel) const {
    panel.outputRuns = runsOf(begin, end, problem_.outputPlane(), problem_.k, panel.outputs);
    if (pointwise_) {
      panel.inputRuns = runsOf(begin, end, problem_.inputPlane(), problem_.c, panel.inputs);
      return;
    }
    const Axis &v = problem_.vertical, &h = problem_.horizontal;
    panel.inputRuns = runsOf(begin, end, h.output, 1, panel.inputs);
    for (int i = 0; i < panel.inputRuns; ++i) {
      std::size_t& from = panel.inputs[i].from;
      const std::size_t row = from / h.output, column = from % h.output;
      from = row / v.output * problem_.c * phases_.plane + row % v.output * v.stride * phases_.row +
             column;
    }
  }

  /// The runs of [begin, end) in planes, each the first of `channels` planes of an image.
  static int runsOf(std::size_t begin, std::size_t end, std::size_t plane, std::size_t channels,
                    Run* runs) {
    int count = 0;
    for (std::size_t i = begin; i < end; i += runs[count++].count) {
      const std::size_t length = std::min(end - i, plane - i % plane);
      runs[count] = {i / plane * plane * channels + i % plane, static_cast<int>(i - begin),
                     static_cast<int>(length)};
    }
    return count;
  }

  /// Row (c, u, t) of a panel holds for each output the input under that element of the filter. All
  /// panels are filled a few rows at a time, as these come from neighbouring memory.
  void gather(const float* x, Panel* panels, std::size_t count) const {
    constexpr int atOnce = 16;
    const Axis &v = problem_.vertical, &h = problem_.horizontal;
    const std::size_t plane = pointwise_ ? problem_.inputPlane() : phases_.plane;
    std::size_t offsets[atOnce], depth = problem_.depth();
    int c = 0, u = 0, t = 0;
    for (std::size_t d = 0; d < depth; d += atOnce) {
      const int rows = static_cast<int>(std::min<std::size_t>(atOnce, depth - d));
      for (int i = 0; i < rows; ++i) {
        offsets[i] = c * plane + u * phases_.row + t % h.stride * phases_.width + t / h.stride;
        if (++t < h.kernel) continue;
        t = 0;
        if (++u < v.kernel) continue;
        u = 0;
        ++c;
      }
      for (std::size_t p = 0; p < count; ++p) {
        const Panel& panel = panels[p];
        if (!panel.narrow) {
          products_.gather(x, offsets, rows, panel.inputs, panel.inputRuns,
                           panel.data + d * panel.width, panel.width, !pointwise_);
          continue;
        }
        for (int i = 0; i < panel.inputRuns; ++i) {
          for (int j = 0; j < panel.inputs[i].count; ++j) {
            const Run column = {panel.inputs[i].from + j, 0, 1};
            products_.gather(x, offsets, rows, &column, 1,
                             panel.data + (panel.inputs[i].to + j) * depth + d, 1, false);
          }
        }
      }
    }
  }

  const Problem& problem_;
  const Operands& operands_;
  const Products& products_ = kernels().products;
  const Phases phases_;
  const bool pointwise_;
  std::size_t threads_, images_, panelsAtOnce_, perThread_;
  float *panels_, *copy_;
};

std::size_t panelsWorkspace(const Problem& problem) {
  return Scratch::bytes(Product::leastFloats(problem));
}

void runPanels(const Problem& problem, const Operands& operands) {
  Product(problem, operands).run();
}

}  // namespace

const Algorithm panels = {CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM, always, always,
                          panelsWorkspace, runPanels};

}  // namespace host_device
