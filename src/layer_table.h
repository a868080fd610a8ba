/// @file
/// Layers with weights, as data. A row describes one layer: the library creates the layer from it,
/// and `forEachWeight` lists the arrays that the layer reads from a weight file.
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
  normalizedConvolution,
  innerProduct,
  projection,
  inceptionV1,
  inceptionV3_1,
  inceptionV3_2,
  inceptionMFM
};

/// Output channels of the convolutions in an Inception block, named as in the paper; 0 where the
/// block has no such branch. With batch normalization, two 3 × 3 convolutions stand for the 5 × 5.
struct InceptionWidths {
  int conv1x1, reduce3x3, conv3x3, reduce5x5, conv5x5, poolProjection;
};

/// One layer, or a block, which is a layer made of layers. The names of its arrays are a prefix
/// that the network chooses, then `name`, then a suffix that tells the arrays apart.
struct LayerRow {
  LayerKind kind;
  const char* name;
  int in, out;  ///< channels, or values of an inner product; `out` is 0 for a block
  int kernel = 1, stride = 1;
  bool padded = false;  ///< by kernel / 2, so that stride 1 keeps the size
  bool hasBias = false;
  int width = 0, height = 0;    ///< pixels of a mean image
  int edge = 1;                 ///< of the feature map that an inner product flattens
  float means[3] = {};          ///< one for each channel
  InceptionWidths widths = {};  ///< of an Inception block
  bool maxPool = false;         ///< an `InceptionV3_1` pools the maximum; else the average
};

/// A part of an array that lives elsewhere.
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
/// A convolution without bias, then batch normalization, then ReLU.
constexpr LayerRow normalizedConvolution(const char* name, int in, int out, int kernel, int stride,
                                         bool padded) {
  return {LayerKind::normalizedConvolution, name, in, out, kernel, stride, padded, noBias};
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

constexpr LayerRow block(LayerKind kind, const char* name, int in, const InceptionWidths& widths) {
  LayerRow row = {kind, name, in, 0};
  row.widths = widths;
  return row;
}
constexpr LayerRow inceptionV1(const char* name, int in, const InceptionWidths& widths) {
  return block(LayerKind::inceptionV1, name, in, widths);
}
inline constexpr bool averagePooled = false;
inline constexpr bool maxPooled = true;
constexpr LayerRow inceptionV3_1(const char* name, int in, const InceptionWidths& widths,
                                 bool maxPool) {
  LayerRow row = block(LayerKind::inceptionV3_1, name, in, widths);
  row.maxPool = maxPool;
  return row;
}
constexpr LayerRow inceptionV3_2(const char* name, int in, const InceptionWidths& widths) {
  return block(LayerKind::inceptionV3_2, name, in, widths);
}
constexpr LayerRow inceptionMFM(const char* name, int channels) {
  return block(LayerKind::inceptionMFM, name, channels, {});
}

/// The layers that a layer is made of, in the order of creation; the layer's name is in front of
/// theirs. None for a layer that reads its arrays itself, or has none.
inline std::vector<LayerRow> layersOf(const LayerRow& row) {
  const int in = row.in;
  const InceptionWidths& w = row.widths;
  switch (row.kind) {
    case LayerKind::normalizedConvolution:
      return {convolution("", in, row.out, row.kernel, row.stride, row.padded, noBias),
              batchNormalization("/bn", row.out)};
    case LayerKind::inceptionV1:
      return {fusedConvolution("1x1", in, w.conv1x1, 1, 1, noPadding),
              fusedConvolution("3x3_reduce", in, w.reduce3x3, 1, 1, noPadding),
              fusedConvolution("3x3", w.reduce3x3, w.conv3x3, 3, 1, samePadding),
              fusedConvolution("5x5_reduce", in, w.reduce5x5, 1, 1, noPadding),
              fusedConvolution("5x5", w.reduce5x5, w.conv5x5, 5, 1, samePadding),
              fusedConvolution("pool_proj", in, w.poolProjection, 1, 1, noPadding)};
    case LayerKind::inceptionV3_1:
      return {normalizedConvolution("1x1", in, w.conv1x1, 1, 1, noPadding),
              normalizedConvolution("3x3_reduce", in, w.reduce3x3, 1, 1, noPadding),
              normalizedConvolution("3x3", w.reduce3x3, w.conv3x3, 3, 1, samePadding),
              normalizedConvolution("double3x3_reduce", in, w.reduce5x5, 1, 1, noPadding),
              normalizedConvolution("double3x3a", w.reduce5x5, w.conv5x5, 3, 1, samePadding),
              normalizedConvolution("double3x3b", w.conv5x5, w.conv5x5, 3, 1, samePadding),
              normalizedConvolution("pool_proj", in, w.poolProjection, 1, 1, noPadding)};
    case LayerKind::inceptionV3_2:
      return {normalizedConvolution("3x3_reduce", in, w.reduce3x3, 1, 1, noPadding),
              normalizedConvolution("3x3", w.reduce3x3, w.conv3x3, 3, 2, samePadding),
              normalizedConvolution("double3x3_reduce", in, w.reduce5x5, 1, 1, noPadding),
              normalizedConvolution("double3x3a", w.reduce5x5, w.conv5x5, 3, 1, samePadding),
              normalizedConvolution("double3x3b", w.conv5x5, w.conv5x5, 3, 2, samePadding)};
    case LayerKind::inceptionMFM:
      return {convolution("_conv1", in, 2 * in, 3, 1, samePadding, withBias),
              convolution("_conv2", in, 2 * in, 3, 1, samePadding, withBias)};
    default:
      return {};
  }
}

enum class WeightRole { mean, filter, bias, scale, shift, variance };

/// Extents of the array that `row` reads as `role`, outermost first.
inline std::vector<std::size_t> weightShape(const LayerRow& row, WeightRole role) {
  const std::size_t in = row.in, out = row.out, kernel = row.kernel;
  const std::size_t width = row.width, height = row.height;
  if (row.kind == LayerKind::meanImage) return {height, width, in};
  if (row.kind == LayerKind::projection && role == WeightRole::mean) return {in};
  if (role != WeightRole::filter) return {out};
  if (row.kind == LayerKind::innerProduct || row.kind == LayerKind::projection) return {out, in};
  return {out, in, kernel, kernel};
}

/// Calls visit(name, elements, row, role) for every array that `rows` read, in the order in which
/// they are read. `row` is the layer that reads the array: inside a block, one of the block's.
template <class Rows, class Visit>
void forEachWeight(const Rows& rows, const std::string& prefix, const Visit& visit) {
  for (const LayerRow& row : rows) {
    const std::string name = prefix + row.name;
    const auto array = [&](const char* suffix, WeightRole role) {
      std::size_t elements = 1;
      for (const std::size_t size : weightShape(row, role)) elements *= size;
      visit(name + suffix, elements, row, role);
    };
    switch (row.kind) {
      case LayerKind::meanImage:
        array("-0", WeightRole::mean);
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
      default:
        forEachWeight(layersOf(row), name, visit);
    }
  }
}

}  // namespace facezoo
