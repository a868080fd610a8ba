/// @file
/// Whole networks with random weights, for tests of what the library promises beside its results.
#pragma once

#include "network_list.h"
#include "small_network.h"
#include "support.h"

#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace facezoo::test {

inline Document seededDocument(const NetworkTable& table, unsigned seed = 1) {
  Document document;
  forEachWeight(
      table.layers, "",
      [&](const std::string& name, std::size_t elements, const LayerRow& layer, WeightRole role) {
        // Such filters keep the scale of activations through a ReLU or a maximum of two. Those of
        // the last inner products are smaller, as softmax would make 0 and 1 of large differences.
        const bool plain = layer.kind == LayerKind::convolution && layer.hasBias;
        const double gain = layer.kind == LayerKind::innerProduct && layer.out < 10 ? 0.01 : 1;
        const double range = gain * std::sqrt((plain ? 3.0 : 6.0) * layer.out / elements);
        using Range = std::pair<double, double>;
        const auto [low, high] = role == WeightRole::filter           ? Range(-range, range)
                                 : role == WeightRole::variance       ? Range(0.5, 2)
                                 : role == WeightRole::scale          ? Range(0.5, 1.5)
                                 : layer.kind == LayerKind::meanImage ? Range(96, 160)
                                                                      : Range(-1, 1);
        document.add(name, seededValues(elements, seed++, low, high));
      });
  return document;
}

/// The path of a weight file of `table`, which the first call writes.
inline const char* seededFile(const NetworkTable& table, unsigned seed = 1) {
  static std::map<std::pair<std::string, unsigned>, TemporaryFile> files;
  const auto [file, isNew] = files.try_emplace({table.name, seed});
  if (isNew) seededDocument(table, seed).save(file->second.path);
  return file->second.path.c_str();
}

/// The arguments that a host passes to `Forward`: seeded images, and memory for the results.
struct ForwardCall {
  const NetworkTable& table;
  const int maxBatch;
  const std::size_t values = static_cast<std::size_t>(maxBatch) * table.outputCount();
  DeviceArray<std::uint8_t> images{seededBytes(
      static_cast<std::size_t>(maxBatch) * table.channels * table.width * table.height, 7)};
  std::vector<float> host = std::vector<float>(values + maxBatch);
  DeviceArray<float> device{host};

  void operator()(Network& network, int batch) {
    float* const out1 = table.memory == Results::onDevice ? device.data() : host.data();
    float* const out2 = table.hasNorm ? &host[values] : nullptr;
    EXPECT_EQ(0, network.Forward(images.data(), batch, out1, out2));
  }
  /// The results since the last call of `take`, and zeros where `Forward` has written none.
  std::vector<float> take() {
    if (table.memory == Results::onDevice) {
      const std::size_t bytes = values * sizeof(float);
      CheckCuda(cudaMemcpy(host.data(), device.data(), bytes, cudaMemcpyDeviceToHost));
      CheckCuda(cudaMemset(device.data(), 0, bytes));
    }
    return std::exchange(host, std::vector<float>(host.size()));
  }
  std::vector<float> results(Network& network, int batch) {
    take();
    (*this)(network, batch);
    return take();
  }
};

struct NetworkKind {
  const NetworkTable& table;
  Network* (*construct)(const char* weightFile, int maxBatch);

  std::unique_ptr<Network> make(int maxBatch, unsigned seed = 1) const {
    return std::unique_ptr<Network>(construct(seededFile(table, seed), maxBatch));
  }
};

template <class Net>
Network* construct(const char* weightFile, int maxBatch) {
  return new Net(weightFile, maxBatch, "");
}

inline const auto networkKinds = Networks::map([](auto entry) {
  return NetworkKind{entry.table, construct<typename decltype(entry)::Class>};
});

inline const NetworkKind smallKind = {smallNetwork, construct<SmallNetwork>};

/// The end of a test's name.
inline void PrintTo(const NetworkKind& kind, std::ostream* out) { *out << kind.table.name; }

/// Reads the number of live networks, which is protected.
struct NetworkProbe : Network {
  static int count() { return network_count; }
};

}  // namespace facezoo::test
