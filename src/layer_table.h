/// @file
/// Weighted layers as data: the rows from which networks and blocks are built, and the arrays that
/// each row reads.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace facezoo {

enum class LayerKind {
  meanImage,
  channelMean,
  noMean,
  fusedConvolution,
  convolution,
  batchNormalization,
  innerProduct,
  projection,
  inceptionV1,
  inceptionV3_1,
  inceptionV3_2,
  inceptionMFM
};

/// One layer, or one block of layers. Its arrays are named prefix + `name` + suffix.
struct LayerRow {
  LayerKind kind;
  const char* name;
  int in, out;  ///< channels, or values of an inner product; `out` is 0 for a block
  int kernel = 1, stride = 1;
  bool padded = false;  ///< by kernel / 2, so that stride 1 keeps the size
  bool hasBias = false;
  int width = 0, height = 0;         ///< of a mean image
  int edge = 1;                      ///< of the feature map that an inner product flattens
  float means[3] = {};               ///< one per channel
  std::array<int, 6> branches = {};  ///< channels inside a block, as its constructor takes them
  bool maxPool = false;              ///< what an `InceptionV3_1` pools with; else the average
};

/// Neighbouring elements that something else owns.
template <class T>
struct View {
  const T* first;
  std::size_t size;
  constexpr const T* begin() const { return first; }
  constexpr const T* end() const { return first + size; }
};
template <class T, std::size_t N>
constexpr View<T> view(const T (&elements)[N]) {
  return {elements, N};
}
template <class T, std::size_t N>
constexpr View<T> view(const std::array<T, N>& elements) {
  return {elements.data(), N};
}

inline constexpr bool samePadding = true;
inline constexpr bool noPadding = false;
inline constexpr bool withBias = true;
inline constexpr bool noBias = false;

constexpr LayerRow meanImage(int width, int height, int channels) {
  LayerRow row = {LayerKind::meanImage, "inMean", channels, channels};
  row.width = width;
  row.height = height;
  return row;
}
constexpr LayerRow channelMean(float first, float second, float third) {
  LayerRow row = {LayerKind::channelMean, "inMean", 3, 3};
  row.means[0] = first;
  row.means[1] = second;
  row.means[2] = third;
  return row;
}
constexpr LayerRow noMean(int channels) { return {LayerKind::noMean, "", channels, channels}; }
constexpr LayerRow fusedConvolution(const char* name, int in, int out, int kernel, int stride,
                                    bool padded) {
  return {LayerKind::fusedConvolution, name, in, out, kernel, stride, padded, withBias};
}
constexpr LayerRow convolution(const char* name, int in, int out, int kernel, int stride,
                               bool padded, bool hasBias) {
  return {LayerKind::convolution, name, in, out, kernel, stride, padded, hasBias};
}
constexpr LayerRow batchNormalization(const char* name, int channels) {
  return {LayerKind::batchNormalization, name, channels, channels};
}
constexpr LayerRow innerProduct(const char* name, int in, int out, bool hasBias) {
  return {LayerKind::innerProduct, name, in, out, 1, 1, noPadding, hasBias};
}
/// Of a feature map of `channels` x `edge` x `edge`, taken in the order channel, row, column.
constexpr LayerRow innerProduct(const char* name, int channels, int edge, int out, bool hasBias) {
  LayerRow row = innerProduct(name, channels * edge * edge, out, hasBias);
  row.edge = edge;
  return row;
}
constexpr LayerRow projection(const char* name, int out) {
  return {LayerKind::projection, name, 2048, out};
}

/// What a block is made of, in the order of creation.
constexpr std::array<LayerRow, 6> inceptionV1Layers(int in, int c1, int r3, int c3, int r5, int c5,
                                                    int cp) {
  return {{fusedConvolution("1x1", in, c1, 1, 1, noPadding),
           fusedConvolution("3x3_reduce", in, r3, 1, 1, noPadding),
           fusedConvolution("3x3", r3, c3, 3, 1, samePadding),
           fusedConvolution("5x5_reduce", in, r5, 1, 1, noPadding),
           fusedConvolution("5x5", r5, c5, 5, 1, samePadding),
           fusedConvolution("pool_proj", in, cp, 1, 1, noPadding)}};
}
constexpr std::array<LayerRow, 14> inceptionV3_1Layers(int in, int c1x1, int c3r, int c3, int cd3r,
                                                       int cd3, int cpool) {
  return {{convolution("1x1", in, c1x1, 1, 1, noPadding, noBias),
           batchNormalization("1x1/bn", c1x1),
           convolution("3x3_reduce", in, c3r, 1, 1, noPadding, noBias),
           batchNormalization("3x3_reduce/bn", c3r),
           convolution("3x3", c3r, c3, 3, 1, samePadding, noBias), batchNormalization("3x3/bn", c3),
           convolution("double3x3_reduce", in, cd3r, 1, 1, noPadding, noBias),
           batchNormalization("double3x3_reduce/bn", cd3r),
           convolution("double3x3a", cd3r, cd3, 3, 1, samePadding, noBias),
           batchNormalization("double3x3a/bn", cd3),
           convolution("double3x3b", cd3, cd3, 3, 1, samePadding, noBias),
           batchNormalization("double3x3b/bn", cd3),
           convolution("pool_proj", in, cpool, 1, 1, noPadding, noBias),
           batchNormalization("pool_proj/bn", cpool)}};
}
constexpr std::array<LayerRow, 10> inceptionV3_2Layers(int in, int c3, int cd3r, int cd3) {
  constexpr int reduced = 128;
  return {{convolution("3x3_reduce", in, reduced, 1, 1, noPadding, noBias),
           batchNormalization("3x3_reduce/bn", reduced),
           convolution("3x3", reduced, c3, 3, 2, samePadding, noBias),
           batchNormalization("3x3/bn", c3),
           convolution("double3x3_reduce", in, cd3r, 1, 1, noPadding, noBias),
           batchNormalization("double3x3_reduce/bn", cd3r),
           convolution("double3x3a", cd3r, cd3, 3, 1, samePadding, noBias),
           batchNormalization("double3x3a/bn", cd3),
           convolution("double3x3b", cd3, cd3, 3, 2, samePadding, noBias),
           batchNormalization("double3x3b/bn", cd3)}};
}
constexpr std::array<LayerRow, 2> inceptionMFMLayers(int channels) {
  return {{convolution("_conv1", channels, 2 * channels, 3, 1, samePadding, withBias),
           convolution("_conv2", channels, 2 * channels, 3, 1, samePadding, withBias)}};
}

constexpr LayerRow block(LayerKind kind, const char* name, int in,
                         const std::array<int, 6>& branches) {
  LayerRow row = {kind, name, in, 0};
  row.branches = branches;
  return row;
}
constexpr LayerRow inceptionV1(const char* name, int in, int c1, int r3, int c3, int r5, int c5,
                               int cp) {
  return block(LayerKind::inceptionV1, name, in, {c1, r3, c3, r5, c5, cp});
}
inline constexpr bool averagePooled = false;
inline constexpr bool maxPooled = true;
constexpr LayerRow inceptionV3_1(const char* name, int in, int c1x1, int c3r, int c3, int cd3r,
                                 int cd3, int cpool, bool maxPool) {
  LayerRow row = block(LayerKind::inceptionV3_1, name, in, {c1x1, c3r, c3, cd3r, cd3, cpool});
  row.maxPool = maxPool;
  return row;
}
constexpr LayerRow inceptionV3_2(const char* name, int in, int c3, int cd3r, int cd3) {
  return block(LayerKind::inceptionV3_2, name, in, {c3, cd3r, cd3});
}
constexpr LayerRow inceptionMFM(const char* name, int channels) {
  return block(LayerKind::inceptionMFM, name, channels, {});
}

enum class WeightRole { mean, filter, bias, scale, shift, variance };

/// Sizes of the array that `row` reads as `role`, outermost first.
inline std::vector<std::size_t> weightShape(const LayerRow& row, WeightRole role) {
  const std::size_t in = row.in, out = row.out, kernel = row.kernel;
  const std::size_t width = row.width, height = row.height;
  if (row.kind == LayerKind::meanImage) return {height, width, in};
  if (row.kind == LayerKind::projection && role == WeightRole::mean) return {in};
  if (role != WeightRole::filter) return {out};
  if (row.kind == LayerKind::innerProduct || row.kind == LayerKind::projection) return {out, in};
  return {out, in, kernel, kernel};
}

/// Calls visit(name, elements, row, role) for every array that `rows` read, in order; `row` is the
/// layer that reads it, inside whatever block.
template <class Rows, class Visit>
void forEachWeight(const Rows& rows, const std::string& prefix, const Visit& visit) {
  for (const LayerRow& row : rows) {
    const std::string name = prefix + row.name;
    const auto array = [&](const char* suffix, WeightRole role) {
      std::size_t elements = 1;
      for (const std::size_t size : weightShape(row, role)) elements *= size;
      visit(name + suffix, elements, row, role);
    };
    const auto& c = row.branches;
    switch (row.kind) {
      case LayerKind::meanImage:
        array("-0", WeightRole::mean);
        break;
      case LayerKind::channelMean:
      case LayerKind::noMean:
        break;
      case LayerKind::fusedConvolution:
      case LayerKind::convolution:
      case LayerKind::innerProduct:
        array("-0", WeightRole::filter);
        if (row.hasBias) array("-1", WeightRole::bias);
        break;
      case LayerKind::batchNormalization:
        array("-gamma", WeightRole::scale);
        array("-beta", WeightRole::shift);
        array("-avg_mean", WeightRole::mean);
        array("-avg_var", WeightRole::variance);
        break;
      case LayerKind::projection:
        array("-0", WeightRole::filter);
        array("-1", WeightRole::mean);
        break;
      case LayerKind::inceptionV1:
        forEachWeight(inceptionV1Layers(row.in, c[0], c[1], c[2], c[3], c[4], c[5]), name, visit);
        break;
      case LayerKind::inceptionV3_1:
        forEachWeight(inceptionV3_1Layers(row.in, c[0], c[1], c[2], c[3], c[4], c[5]), name, visit);
        break;
      case LayerKind::inceptionV3_2:
        forEachWeight(inceptionV3_2Layers(row.in, c[0], c[1], c[2]), name, visit);
        break;
      case LayerKind::inceptionMFM:
        forEachWeight(inceptionMFMLayers(row.in), name, visit);
        break;
    }
  }
}

}  // namespace facezoo
