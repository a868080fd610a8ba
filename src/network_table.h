/// @file
/// What each network is made of, as data: geometry, pool sizing, the weighted layers in the order
/// of their creation, and the groups of its results. Constructors build from it; the tool names,
/// checks and synthesizes weights from it.
#pragma once

#include <cstddef>

namespace facezoo {

enum class LayerKind { meanImage, fusedConvolution, innerProduct };

/// One weighted layer. Its arrays are named prefix + `name` + suffix.
struct LayerRow {
  LayerKind kind;
  const char* name;
  int in, out;  ///< channels, or values of an inner product
  int kernel = 1, stride = 1;
  bool padded = false;  ///< by kernel / 2, so that stride 1 keeps the size
  bool hasBias = false;
  int width = 0, height = 0;  ///< of a mean image
};

constexpr bool samePadding = true;
constexpr bool noPadding = false;
constexpr bool withBias = true;

constexpr LayerRow meanImage(int width, int height, int channels) {
  LayerRow row = {LayerKind::meanImage, "inMean", channels, channels};
  row.width = width;
  row.height = height;
  return row;
}
constexpr LayerRow fusedConvolution(const char* name, int in, int out, int kernel, int stride,
                                    bool padded) {
  return {LayerKind::fusedConvolution, name, in, out, kernel, stride, padded, withBias};
}
constexpr LayerRow innerProduct(const char* name, int in, int out, bool hasBias) {
  return {LayerKind::innerProduct, name, in, out, 1, 1, noPadding, hasBias};
}

enum class WeightRole { mean, filter, bias };

/// Calls visit(suffix, elements, role) for every array that `layer` reads, in order.
template <class Visit>
void forEachWeight(const LayerRow& layer, Visit&& visit) {
  if (layer.kind == LayerKind::meanImage) {
    visit("-0", std::size_t{1} * layer.width * layer.height * layer.in, WeightRole::mean);
    return;
  }
  visit("-0", std::size_t{1} * layer.out * layer.in * layer.kernel * layer.kernel,
        WeightRole::filter);
  if (layer.hasBias) visit("-1", static_cast<std::size_t>(layer.out), WeightRole::bias);
}

/// Consecutive values of a network's result for one image.
struct OutputGroup {
  const char* name;
  int count;
};

template <class T>
struct View {
  const T* first;
  int size;
  constexpr const T* begin() const { return first; }
  constexpr const T* end() const { return first + size; }
};
template <class T, int N>
constexpr View<T> view(const T (&rows)[N]) {
  return {rows, N};
}

struct NetworkTable {
  const char* name;
  int channels, width, height;
  int perImageBytes;  ///< the largest activation of one image
  int bufferCount;    ///< pool blocks that `Forward` takes at once
  int outputDim;
  View<LayerRow> layers;
  View<OutputGroup> outputs;
};

constexpr LayerRow dexpressionLayers[] = {
    meanImage(224, 224, 1),
    fusedConvolution("conv1", 1, 64, 7, 2, samePadding),
    fusedConvolution("conv2a", 64, 96, 1, 1, noPadding),
    fusedConvolution("conv2b", 96, 208, 3, 1, samePadding),
    fusedConvolution("conv2c", 64, 64, 1, 1, noPadding),
    fusedConvolution("conv3a", 272, 96, 1, 1, noPadding),
    fusedConvolution("conv3b", 96, 208, 3, 1, samePadding),
    fusedConvolution("conv3c", 272, 64, 1, 1, noPadding),
    innerProduct("loss3/classifier_acce_mouth", 272 * 14 * 14, 2, withBias),
    innerProduct("loss3/classifier_acce_eye", 272 * 14 * 14, 3, withBias),
};
constexpr OutputGroup dexpressionOutputs[] = {{"mouth", 2}, {"eye", 3}};
constexpr NetworkTable dexpressionNet = {"DexpressionNet",        1, 224, 224,
                                         272 * 56 * 56 * 4,       4, 5,   view(dexpressionLayers),
                                         view(dexpressionOutputs)};

}  // namespace facezoo
