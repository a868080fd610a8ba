#include "client/synthesis.h"

#include "client/weight_document.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace facezoo {

namespace {

/// Bell-shaped values of mean 0 and variance 1. The standard's distributions differ between
/// libraries and logarithms between machines; the sum of four 16-bit draws is exact everywhere.
class Bell {
 public:
  explicit Bell(std::uint64_t seed) : bits_(seed) {}

  float operator()() {
    const std::uint64_t draw = bits_();
    const int sum = static_cast<int>((draw & 0xFFFF) + (draw >> 16 & 0xFFFF) +
                                     (draw >> 32 & 0xFFFF) + (draw >> 48));
    constexpr float kMean = 4 * 32767.5F;
    constexpr float kDeviation = 37837.2F;  // sqrt(4 / 12) of 65536
    return (static_cast<float>(sum) - kMean) / kDeviation;
  }

 private:
  std::mt19937_64 bits_;
};

struct Distribution {
  float mean, deviation;
};

Distribution distribution(const LayerRow& layer, WeightRole role) {
  constexpr float kActivation = 64;  // about what pixels less their mean reach; results come to 1
  constexpr int kHidden = 1024;      // narrower inner products give results
  const bool result = layer.kind == LayerKind::projection ||
                      (layer.kind == LayerKind::innerProduct && layer.out < kHidden);
  switch (role) {
    case WeightRole::mean:
      if (layer.kind == LayerKind::meanImage) return {127, 8};
      return {0, 1};
    case WeightRole::bias:
      return {0, result ? 0.1F : 1.0F};
    case WeightRole::scale:
    case WeightRole::variance:
      return {1, 0.1F};
    case WeightRole::shift:
      return {0, 1};
    case WeightRole::filter:
      break;
  }
  const float fanIn = static_cast<float>(layer.in) * layer.kernel * layer.kernel;
  if (result) return {0, std::sqrt(1 / fanIn) / kActivation};
  // A ReLU takes half of the mean square away. The larger of two channels takes nothing, and the
  // residual sums of such layers add to it.
  const bool rectified = layer.kind != LayerKind::convolution || !layer.hasBias;
  return {0, std::sqrt((rectified ? 2.0F : 0.7F) / fanIn)};
}

}  // namespace

void writeRandomWeights(const NetworkTable& network, const std::string& prefix, std::uint64_t seed,
                        std::ostream& out) {
  std::size_t arrays = 0;
  forEachWeight(network.layers, prefix, [&](auto&&...) { ++arrays; });
  WeightWriter writer(out, arrays);
  Bell bell(seed);
  constexpr std::size_t kMost = 4096;
  std::vector<float> values;
  forEachWeight(
      network.layers, prefix,
      [&](const std::string& name, std::size_t elements, const LayerRow& layer, WeightRole role) {
        const Distribution shape = distribution(layer, role);
        writer.startArray(name, elements);
        for (std::size_t left = elements; left > 0; left -= values.size()) {
          values.resize(std::min(left, kMost));
          for (float& value : values) value = shape.mean + shape.deviation * bell();
          writer.append(
              {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float)});
        }
      });
}

}  // namespace facezoo
