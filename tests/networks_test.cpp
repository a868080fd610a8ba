#include "facezoo.h"
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
  const char* name;
  std::unique_ptr<Network> (*create)(const std::string& file, int maxBatch, const std::string&);
  int channels, size, outputDim;
  bool onDevice;         ///< where `out1` is
  const char* required;  ///< a weight without which there is no network
  std::string steps;     ///< see `Chain::run`
};

/// The end of a test's name.
void PrintTo(const NetworkCase& network, std::ostream* out) { *out << network.name; }

/// A copy, which has what its source had.
template <class N>
std::unique_ptr<Network> create(const std::string& file, int maxBatch, const std::string& prefix) {
  N source(file.c_str(), maxBatch, prefix);
  return std::make_unique<N>(source);
}

const std::string v1To4d =
    "image; cba:conv1/7x7_s2 64 7 2; max: 3 2 0; lrn: 5 1e-4 .75 1;"
    "cba:conv2/3x3_reduce 64; cba:conv2/3x3 192 3; lrn: 5 1e-4 .75 1; max: 3 2 0;"
    "v1:inception_3a/ 64 96 128 16 32 32; v1:inception_3b/ 128 128 192 32 96 64; max: 3 2 0;"
    "v1:inception_4a/ 192 96 208 16 48 64; v1:inception_4b/ 160 112 224 24 64 64;"
    "v1:inception_4c/ 128 128 256 24 64 64; v1:inception_4d/ 112 144 288 32 64 64;";
const std::string v1From4e =
    "v1:inception_4e/ 256 160 320 32 128 128; max: 3 2 0;"
    "v1:inception_5a/ 256 160 320 32 128 128; v1:inception_5b/ 384 192 384 48 128 128;";
const std::string twoHeads = "classify:acce_mouth 2; classify:acce_eye 3; get:heads";

const NetworkCase networks[] = {
    {"DexpressionNet", create<DexpressionNet>, 1, 224, 5, false, "conv3c-1",
     "image; cba:conv1 64 7 2; max: 3 2 0; lrn: 5 1e-4 .75 1; set:a;"
     "cba:conv2a 96; cba:conv2b 208 3; join:b; get:a; max: 3 1 1; cba:conv2c 64; join:b;"
     "get:b; max: 3 2 0; set:a;"
     "cba:conv3a 96; cba:conv3b 208 3; join:c; get:a; max: 3 1 1; cba:conv3c 64; join:c;"
     "get:c; max: 3 2 0;" +
         twoHeads},
    {"FANet", create<FANet>, 3, 224, 136, false, "68point-1",
     "image; cba:conv1 96 7 2 0; lrn: 5 5e-4 .75 2; max: 3 3 0; cba:conv2 256 5 1 0;"
     "max: 2 2 0; cba:conv3 512 3; cba:conv4 512 3; cba:conv5 512 3; max: 3 3 0; norm;"
     "flat; conv:fc6 4096; relu; conv:fc7 4096; relu; conv:68point 136"},
    {"GoogLeNet", create<GoogLeNet>, 1, 256, 2048, true, "pca-1",
     v1To4d +
         "set:t; avg: 5 3 0; cba:loss2/conv 128; flat; conv:loss2/fc 1024; relu; join:y; get:t;" +
         v1From4e + "avg: 8 1 0; join:y; get:y; norm; project:pca 512"},
    // The branch loss1 has weights and leads nowhere.
    {"GoogLeNetBN", create<GoogLeNetBN>, 3, 224, 2048, true, "loss1/fc-0",
     "means: 104 117 123; normalized:conv1/7x7_s2 64 7 2; max: 3 2 0;"
     "normalized:conv2/3x3_reduce 64; normalized:conv2/3x3 192 3; max: 3 2 0;"
     "v3:inception_3a/ 64 64 64 64 96 32 0; v3:inception_3b/ 64 64 96 64 96 64 0;"
     "v3:inception_3c/ 0 128 160 64 96; v3:inception_4a/ 224 64 96 96 128 128 0; set:t;"
     "avg: 5 3 0; normalized:loss1/conv 128; flat; normalized:loss1/fc 1024; get:t;"
     "v3:inception_4b/ 192 96 128 96 128 128 0; v3:inception_4c/ 160 128 160 128 160 96 0;"
     "v3:inception_4d/ 96 128 192 160 192 96 0; v3:inception_4e/ 0 128 192 192 256; set:t;"
     "avg: 5 3 0; normalized:loss2/conv 128; flat; normalized:loss2/fc 1024; join:y; get:t;"
     "v3:inception_5a/ 352 192 320 160 224 128 0; v3:inception_5b/ 352 192 320 192 224 128 1;"
     "avg: 7 1 0; join:y; get:y; norm; project:pca 1024"},
    {"GoogLeNet_FAA1ch", create<GoogLeNet_FAA1ch>, 1, 224, 5, false, "inMean-0",
     v1To4d + v1From4e + "avg: 7 1 0;" + twoHeads},
    {"GoogLeNet_FAA3ch", create<GoogLeNet_FAA3ch>, 3, 224, 5, false, "inception_5b/pool_proj-1",
     v1To4d + v1From4e + "avg: 7 1 0;" + twoHeads},
    {"GoogLeNet_FAA3ch_12tasks", create<GoogLeNet_FAA3ch_12tasks>, 3, 224, 26, false,
     "loss3/classifier_lumi-1",
     v1To4d + v1From4e +
         "avg: 7 1 0; classify:acce_eye 3; classify:acce_mouth 2; classify:acce_head 2;"
         "classify:acce_hair 2; classify:condition_eye 4; classify:exp_mouth_open 4;"
         "classify:exp_mouth_corner 4; regress:yaw 1; regress:pitch 1; regress:blur 1;"
         "regress:noise 1; regress:lumi 1; get:heads"},
    {"LCNN29", create<LCNN29>, 3, 128, 512, true, "10_conv2-1",
     "means; conv:conv1 96 5; mfm; max: 2 2 0; residual:1;"
     "conv:conv2_1 96; mfm; conv:conv2_2 192 3; mfm; max: 2 2 0; residual:2; residual:3;"
     "conv:conv3_1 192; mfm; conv:conv3_2 384 3; mfm; max: 2 2 0; residual:4; residual:5;"
     "residual:6; conv:conv4_1 192; mfm; conv:conv4_2 256 3; mfm; residual:7; residual:8;"
     "residual:9; residual:10; conv:conv5_1 256; mfm; conv:conv5_2 256 3; mfm; max: 2 2 0; norm;"
     "flat; conv:fc1 512"}};

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
  const NetworkCase& net = GetParam();
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
  EXPECT_THROW(net.create(file.path, 2, "face/"), NetworkError) << "needs no " << net.required;
  document.add(std::string("face/") + net.required, chain.weights.at(net.required));
  document.save(file.path);
  const auto network = net.create(file.path, 2, "face/");
  EXPECT_EQ(std::tuple(net.channels, net.size, net.size, net.outputDim),
            std::tuple(network->getChannels(), network->getWidth(), network->getHeight(),
                       network->getOutputDim()));

  // What a pass leaves in `out1` and `out2`; it writes nothing behind them.
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
  // A GPU may let the wrong kind of memory pass.
  EXPECT_THROW(forward(1, 1, !net.onDevice, true), cudaError);
#endif
  std::cout << "measured " << net.name << ": largest difference from double precision " << worst
            << " of the largest value\n";
}

INSTANTIATE_TEST_SUITE_P(, NetworkTest, testing::ValuesIn(networks),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace facezoo::test
