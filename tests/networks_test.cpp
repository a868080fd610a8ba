#include "network_facts.h"
#include "network_list.h"
#include "reference.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <tuple>

namespace facezoo::test {
namespace {

struct NetworkCase {
  const NetworkFacts& facts;
  std::unique_ptr<Network> (*create)(const std::string& file, int maxBatch, const std::string&);
};

/// The end of a test's name.
void PrintTo(const NetworkCase& network, std::ostream* out) { *out << network.facts.name; }

/// Constructs a network and returns a copy, to which the layers have moved.
template <class N>
std::unique_ptr<Network> create(const std::string& file, int maxBatch, const std::string& prefix) {
  N source(file.c_str(), maxBatch, prefix);
  return std::make_unique<N>(source);
}

/// The arrays of a weight file.
Chain::Weights weightsOf(const char* path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  const msgpack::unpacked document = msgpack::unpack(bytes.data(), bytes.size());
  Chain::Weights weights;
  for (const auto& [name, array] : document.get().as<std::map<std::string, msgpack::object>>()) {
    std::vector<float>& values = weights[name];
    values.resize(array.via.str.size / sizeof(float));
    std::memcpy(values.data(), array.via.str.ptr, values.size() * sizeof(float));
  }
  return weights;
}

class NetworkTest : public DeviceTest, public testing::WithParamInterface<NetworkCase> {};

TEST_P(NetworkTest, MatchesDoublePrecision) {
  const NetworkFacts& net = GetParam().facts;
  const int bytes = net.channels * net.size * net.size;
  const char* const other = std::getenv("FACEZOO_NETWORK_SEED");
  const auto seed = static_cast<unsigned>(other == nullptr ? 0 : std::atoi(other));
  auto images = seededBytes(bytes, 100 + seed);
  images.resize(2 * bytes, 0);  // black
  images.resize(3 * bytes, 255);
  const DeviceArray<std::uint8_t> input(images);
  Chain chain;
  if (const char* const path = std::getenv("FACEZOO_NETWORK_WEIGHTS"))
    chain.weights = weightsOf(path);
  chain.weights.seed = seed;
  const Image4 expected =
      chain.run(net.steps, {3, net.size, net.size, net.channels, {images.begin(), images.end()}});
  const bool hasNorm = chain.kept.count("norm") != 0;
  constexpr float untouched = -7;
  const Image4 norms =
      hasNorm ? chain.kept["norm"] : Image4{3, 1, 1, 1, std::vector<double>(3, untouched)};

  const TemporaryFile file;
  Document document;
  for (const auto& [name, values] : chain.weights)
    if (name != net.required) document.add("face/" + name, values);
  document.save(file.path);
  EXPECT_THROW(GetParam().create(file.path, 2, "face/"), NetworkError)
      << "needs no " << net.required;
  document.add(std::string("face/") + net.required, chain.weights.at(net.required));
  document.save(file.path);
  const auto network = GetParam().create(file.path, 2, "face/");
  EXPECT_EQ(std::tuple(net.channels, net.size, net.size, net.outputDim),
            std::tuple(network->getChannels(), network->getWidth(), network->getHeight(),
                       network->getOutputDim()));

  // What `Forward` writes to `out1` and `out2`. Behind them, it must write nothing.
  using Results = std::vector<std::vector<float>>;
  const std::vector<float> fence(16, untouched);
  const auto forward = [&](int from, int batch, bool onDevice, bool wantsNorm) {
    Results results = {std::vector<float>(batch * expected.c + fence.size(), untouched),
                       std::vector<float>(batch + fence.size(), untouched)};
    std::vector<float>& out1 = results[0];
    const DeviceArray<float> device(out1);
    EXPECT_EQ(0, network->Forward(input.data() + from * bytes, batch,
                                  onDevice ? device.data() : out1.data(),
                                  wantsNorm ? results[1].data() : nullptr));
    if (onDevice)
      CheckCuda(cudaMemcpy(out1.data(), device.data(), out1.size() * sizeof(float),
                           cudaMemcpyDeviceToHost));
    for (auto& out : results) {
      EXPECT_EQ(fence, std::vector<float>(out.end() - 16, out.end()));
      out.resize(out.size() - fence.size());
    }
    return results;
  };
  double worst = 0;
  const auto check = [&](const std::vector<float>& got, const Image4& all, int from) {
    const auto first = all.v.begin() + from * all.c;
    const int count = static_cast<int>(got.size());
    const Image4 part{count / all.c, all.c, 1, 1, {first, first + count}};
    const Image4 scale = largest(all);
    expectClose(got, part, scale, 1e-4);
    for (std::size_t i = 0; i < got.size(); ++i)
      worst = std::max(worst, std::abs(got[i] - part.v[i]) / scale.v[i]);
  };
  EXPECT_THROW(forward(0, 3, net.onDevice, true), TensorError);
  Results results;
  for (const auto& [from, batch] : {std::pair{0, 2}, {1, 2}, {1, 1}}) {
    results = forward(from, batch, net.onDevice, true);
    check(results[0], expected, from);
    check(results[1], norms, from);
  }
  EXPECT_EQ((Results{results[0], {untouched}}), forward(1, 1, net.onDevice, false));
#if FACEZOO_SIMULATED
  // A card may accept the wrong kind of memory.
  EXPECT_THROW(forward(1, 1, !net.onDevice, true), cudaError);
#endif
  std::cout << "measured " << net.name << ": largest difference from double precision " << worst
            << " of the largest value\n";
}

const auto cases = Networks::map([](auto entry) {
  return NetworkCase{factsOf(entry.table), create<typename decltype(entry)::Class>};
});
INSTANTIATE_TEST_SUITE_P(, NetworkTest, testing::ValuesIn(cases),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace facezoo::test
