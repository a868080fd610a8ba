/// @file
/// Whole networks on seeded weights, for tests of the contract rather than of the numbers.
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
        // Keeps activations at their scale, through a ReLU or a maximum of two, and the last
        // products where softmax can tell them apart.
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

/// A weight file of `table`, written once for the process.
inline const char* seededFile(const NetworkTable& table, unsigned seed = 1) {
  static std::map<std::pair<std::string, unsigned>, TemporaryFile> files;
  const auto [file, isNew] = files.try_emplace({table.name, seed});
  if (isNew) seededDocument(table, seed).save(file->second.path);
  return file->second.path.c_str();
}

/// What a host has for `Forward`: seeded images, and room for all results that there are.
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
  /// The results since the last time; zeros where there are none.
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

/// Reaches what hosts cannot.
struct NetworkProbe : Network {
  static int count() { return network_count; }
};

}  // namespace facezoo::test
