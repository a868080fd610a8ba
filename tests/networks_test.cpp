#include "DexpressionNet.h"
#include "reference.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <map>
#include <memory>
#include <numeric>

namespace facezoo::test {
namespace {

/// The layers of networks in double precision, on weights that are made when first asked for. They
/// keep activations on the scale of pixels, where every layer still matters to the results.
struct SeededLayers {
  std::map<std::string, std::vector<float>> weights;

  const std::vector<float>& get(const std::string& name, std::size_t count, double low,
                                double high) {
    const auto [entry, added] = weights.try_emplace(name);
    if (added)
      entry->second = seededValues(count, static_cast<unsigned>(weights.size()), low, high);
    return entry->second;
  }
  Image4 sums(const std::string& name, const Image4& x, int outputs, double gain, double bias,
              int kernel, int stride, int pad) {
    const std::size_t taps = static_cast<std::size_t>(x.c) * kernel * kernel;
    const double range = gain * std::sqrt(6.0 / static_cast<double>(taps));
    const std::vector<float>& filter = get(name + "-0", taps * outputs, -range, range);
    return convolution(x, filter, get(name + "-1", outputs, -bias, bias), kernel, stride, pad);
  }
  Image4 cba(const std::string& name, const Image4& x, int outputs, int kernel, int stride,
             int pad) {
    return relu(sums(name, x, outputs, 1, 30, kernel, stride, pad));
  }
  Image4 head(const std::string& name, const Image4& x, int outputs) {
    return softmax(sums(name, flat(x), outputs, 0.002, 0.5, 1, 1, 0));
  }
};

Image4 dexpression(SeededLayers& net, const std::vector<std::uint8_t>& images, int n) {
  Image4 a = convertInput(images, n, 224, 224, 1, net.get("inMean-0", 224 * 224, 100, 156));
  a = pool(net.cba("conv1", a, 64, 7, 2, 3), Pool::max, 3, 2, 0);
  a = lrn(a, 5, 1e-4, 0.75, 1);
  Image4 b = net.cba("conv2b", net.cba("conv2a", a, 96, 1, 1, 0), 208, 3, 1, 1);
  Image4 c = net.cba("conv2c", pool(a, Pool::max, 3, 1, 1), 64, 1, 1, 0);
  a = pool(concat({b, c}), Pool::max, 3, 2, 0);
  b = net.cba("conv3b", net.cba("conv3a", a, 96, 1, 1, 0), 208, 3, 1, 1);
  c = net.cba("conv3c", pool(a, Pool::max, 3, 1, 1), 64, 1, 1, 0);
  a = pool(concat({b, c}), Pool::max, 3, 2, 0);
  return concat(
      {net.head("loss3/classifier_acce_mouth", a, 2), net.head("loss3/classifier_acce_eye", a, 3)});
}

struct NetworkCase {
  const char* name;
  std::unique_ptr<Network> (*create)(const std::string& file, int maxBatch, const std::string&);
  Image4 (*reference)(SeededLayers& net, const std::vector<std::uint8_t>& images, int n);
  int channels, width, height;
  std::vector<int> groups;  ///< sizes of the groups of results that sum to 1, in their order
};

template <class N>
std::unique_ptr<Network> create(const std::string& file, int maxBatch, const std::string& prefix) {
  return std::make_unique<N>(file.c_str(), maxBatch, prefix);
}

const NetworkCase networks[] = {
    {"DexpressionNet", create<DexpressionNet>, dexpression, 1, 224, 224, {2, 3}}};

// The results for `images`; nothing may be written behind them or to out2.
std::vector<float> forward(Network& network, const std::vector<std::uint8_t>& images, int batch) {
  const std::vector<float> canary(16, -7);
  const DeviceArray<std::uint8_t> input(images);
  const std::size_t values = static_cast<std::size_t>(batch) * network.getOutputDim();
  std::vector<float> out1(values + canary.size(), -7);
  std::vector<float> out2 = canary;
  EXPECT_EQ(0, network.Forward(input.data(), batch, out1.data(), out2.data()));
  EXPECT_EQ(canary, out2);
  EXPECT_EQ(canary, std::vector<float>(out1.end() - 16, out1.end()));
  out1.resize(values);
  return out1;
}

class NetworkTest : public DeviceTest, public testing::WithParamInterface<const NetworkCase*> {};

TEST_P(NetworkTest, EveryPlaceInEveryBatchMatchesTheReference) {
  const NetworkCase& net = *GetParam();
  const auto images = [&](int first, int count) {  // three kinds, over and over
    const std::size_t bytes = static_cast<std::size_t>(net.channels) * net.width * net.height;
    std::vector<std::uint8_t> all;
    for (int kind = first % 3; count > 0; --count, kind = (kind + 1) % 3) {
      const auto one = seededBytes(bytes, 100 + kind, 60 * kind, 256 - 20 * kind);
      all.insert(all.end(), one.begin(), one.end());
    }
    return all;
  };
  SeededLayers layers;
  const Image4 three = net.reference(layers, images(0, 3), 3);
  for (double p : three.v) ASSERT_NEAR(0.5, p, 0.48) << "too close to 0 or 1 to show an error";

  double worst = 0;
  for (const auto& [maxBatch, prefix] : {std::pair<int, std::string>{2, ""}, {8, "face/"}}) {
    const TemporaryFile file;
    Document document;
    for (const auto& [name, values] : layers.weights) document.add(prefix + name, values);
    document.save(file.path);
    const auto network = net.create(file.path, maxBatch, prefix);
    EXPECT_EQ(std::tuple(net.channels, net.width, net.height),
              std::tuple(network->getChannels(), network->getWidth(), network->getHeight()));
    ASSERT_EQ(three.c, network->getOutputDim());
    for (const auto& [first, batch] :
         {std::pair{0, maxBatch}, {0, 1}, {1, 1}, {2, 1}, {0, maxBatch + 1}, {1, maxBatch}}) {
      SCOPED_TRACE(testing::Message() << batch << " images from " << first);
      if (batch > maxBatch) {
        EXPECT_THROW(forward(*network, images(first, batch), batch), TensorError);
        continue;
      }
      const std::vector<float> results = forward(*network, images(first, batch), batch);
      Image4 expected = zeros(batch, three.c, 1, 1);
      for (std::size_t i = 0; i < expected.v.size(); ++i) {
        expected.v[i] = three.v[(three.index(first, 0, 0, 0) + i) % three.v.size()];
        worst = std::max(worst, std::abs(results.at(i) - expected.v[i]));
      }
      const Image4 one{batch, three.c, 1, 1, std::vector<double>(results.size(), 1)};
      expectClose(results, expected, one, 1e-4);
      for (auto at = results.begin(); at != results.end();)
        for (int size : net.groups) {
          EXPECT_NEAR(1, std::accumulate(at, at + size, 0.0), 1e-6);
          at += size;
        }
    }
  }
  std::cout << "measured " << net.name << ": largest difference from double precision " << worst
            << "\n";
}

INSTANTIATE_TEST_SUITE_P(, NetworkTest, testing::Values(&networks[0]),
                         [](const auto& network) { return std::string(network.param->name); });

}  // namespace
}  // namespace facezoo::test
