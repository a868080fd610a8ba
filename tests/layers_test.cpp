#include "layer_factory.h"
#include "layer_shapes.h"
#include "layers/batch_norm.h"
#include "layers/cba.h"
#include "layers/concat.h"
#include "layers/conv.h"
#include "layers/eltwise.h"
#include "layers/inner_product.h"
#include "layers/l2_norm.h"
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/projection.h"
#include "layers/relu.h"
#include "layers/softmax.h"
#include "layers/transform.h"
#include "reference.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <set>
#include <stdexcept>
#include <utility>

namespace facezoo::test {

/// The ends of the tests' names.
void PrintTo(const LayerShape& s, std::ostream* out) {
  const LayerKind kind = s.row.kind;
  if (kind == LayerKind::noMean || kind == LayerKind::meanImage)
    *out << s.batch << 'x' << s.height << 'x' << s.width << 'x' << s.row.in;
  else
    *out << s.row.name;
}
void PrintTo(const MapShape& s, std::ostream* out) {
  *out << s.batch << 'x' << s.channels << 'x' << s.height << 'x' << s.width;
}
void PrintTo(const PoolingShape& s, std::ostream* out) {
  PrintTo(MapShape{s.batch, s.channels, s.height, s.width}, out);
  *out << '_' << s.window << 's' << s.stride << 'p' << s.pad;
}

namespace {

constexpr double epsilon = std::numeric_limits<float>::epsilon();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

struct LayerTest : DeviceTest {
  void SetUp() override {
    DeviceTest::SetUp();
    if (!IsSkipped()) makeWorkspace(false);
  }
  /// Filling the workspace with NaNs takes longer than most tests, and only convolutions use it.
  static void makeWorkspace([[maybe_unused]] bool poisoned) {
#if FACEZOO_SIMULATED
    LayerBase::releaseAll();
    host_device::poisonFreshMemory(poisoned);
    const LayerBase first;
    host_device::poisonFreshMemory(true);
#endif
  }
  /// Blocks of so many floats that nobody has written to: an element of the output that is left
  /// out shows, and so does, if blocks end with the tensor, what is read behind it.
  static void freshPool(std::size_t floats) {
    freePool();
    preparePool(static_cast<int>(floats * sizeof(float)), 7);
  }
};

template <class Shape>
struct ShapedLayerTest : LayerTest, testing::WithParamInterface<Shape> {};

/// A suite with one test for each of `shapes`.
#define LAYER_TEST(Suite, Shape, shapes)                                                           \
  struct Suite : ShapedLayerTest<Shape> {};                                                        \
  INSTANTIATE_TEST_SUITE_P(, Suite, testing::ValuesIn(shapes), testing::PrintToStringParamName()); \
  TEST_P(Suite, FollowsItsFormula)

std::vector<LayerShape> layersOf(const std::set<LayerKind>& kinds) {
  std::vector<LayerShape> shapes;
  for (LayerShape shape : networkLayers) {
    if (shape.row.kind != LayerKind::batchNormalization)
      shape.row.out = std::min(shape.row.out, testedOutputs);
    if (kinds.count(shape.row.kind) > 0) shapes.push_back(shape);
  }
  for (const LayerShape& shape : edgeLayers)
    if (kinds.count(shape.row.kind) > 0) shapes.push_back(shape);
  return shapes;
}

template <class Shape, std::size_t N, std::size_t M>
std::vector<Shape> both(const Shape (&networks)[N], const Shape (&edges)[M]) {
  std::vector<Shape> shapes(networks, networks + N);
  shapes.insert(shapes.end(), edges, edges + M);
  return shapes;
}

Image4 seededMap(const MapShape& s, unsigned seed, double low = -1, double high = 1) {
  return seededImage(s.batch, s.channels, s.height, s.width, seed, low, high);
}

LAYER_TEST(InputLayerTest, LayerShape, both(networkInputs, edgeInputs)) {
  const auto& [row, n, h, w, outH, outW] = GetParam();
  const int c = row.in;
  const auto bytes = seededBytes(static_cast<std::size_t>(n) * h * w * c, 1);
  const auto image = seededValues(static_cast<std::size_t>(h) * w * c, 2, 0, 255);
  const std::vector<float> means = {104, 117, 123};
  Document weights;
  weights.add("inMean-0", image);
  const auto check = [&, n = n, h = h, w = w](const LayerRow& kind,
                                              const std::vector<float>& mean) {
    TransformNHWC2NCHW layer(kind, "", weights.root());
    freshPool(bytes.size());
    const Image4 expected = convertInput({n, h, w, c, {bytes.begin(), bytes.end()}}, mean);
    expectClose(layer(upload(bytes, {n, h, w, c})), expected, expected, epsilon);
  };
  check(noMean(c), {});
  check(channelMean(means[0], means[1], means[2]), {means.begin(), means.begin() + c});
  check(meanImage(w, h, c), image);
}

LAYER_TEST(ConvolutionLayerTest, LayerShape,
           layersOf({LayerKind::fusedConvolution, LayerKind::convolution})) {
  const auto& [row, batch, h, w, outH, outW] = GetParam();
  const int taps = row.in * row.kernel * row.kernel, pad = row.padded ? row.kernel / 2 : 0;
  const auto filter = seededValues(static_cast<std::size_t>(row.out) * taps, 1);
  const auto bias = seededValues(row.out, 2);
  Document weights;
  weights.add("biased-0", filter).add("biased-1", bias).add("bare-0", filter);
  auto& root = weights.root();
  makeWorkspace(true);
  const auto kind = [&, &row = row](const char* name, bool hasBias) {
    return facezoo::convolution(name, row.in, row.out, row.kernel, row.stride, row.padded, hasBias);
  };
  CBA fused(fusedConvolution("biased", row.in, row.out, row.kernel, row.stride, row.padded), "",
            root);
  Convolution2D biased(kind("biased", withBias), "", root), bare(kind("bare", noBias), "", root);
  // The second batch size makes the layers adapt what they have prepared for the first.
  for (const int n : {batch, batch + 1}) {
    const Image4 x = seededImage(n, row.in, h, w, 3);
    const Image4 sums = convolution(x, filter, bias, row.kernel, row.stride, pad);
    const Image4 scale = convolutionScale(x, filter, bias, row.kernel, row.stride, pad);
    EXPECT_EQ(std::pair(outH, outW), std::pair(sums.h, sums.w));
    const auto check = [&, &row = row](LayerBase& layer, const Image4& expected) {
      freshPool(std::max(x.v.size(), sums.v.size()));
      // Algorithms that transform tiles multiply by numbers up to 8 and back: each rounding
      // weighs that much more, and there are more of them the more channels are summed.
      const double more = row.kernel == 3 && row.in > 32 ? 256 : 128;
      expectClose(layer(upload(x)), expected, scale, roundings(taps, more));
    };
    check(fused, relu(sums));
    check(biased, sums);
    check(bare, convolution(x, filter, {}, row.kernel, row.stride, pad));
  }
}

LAYER_TEST(ProductLayerTest, LayerShape,
           layersOf({LayerKind::innerProduct, LayerKind::projection})) {
  const auto& [row, n, h, w, outH, outW] = GetParam();
  const int inputs = row.in, outputs = row.out;
  Image4 x = seededImage(n, inputs / (h * w), h, w, 1);
  const auto matrix = seededValues(static_cast<std::size_t>(outputs) * inputs, 2);
  const auto bias = seededValues(outputs, 3, 1, 2), mean = seededValues(inputs, 4, 1, 2);
  Document weights;
  weights.add("fc-0", matrix).add("fc-1", bias).add("bare-0", matrix);
  weights.add("pca-0", matrix).add("pca-1", mean);
  freshPool(std::max(x.v.size(), static_cast<std::size_t>(n) * outputs));
  const Tensor in = upload(x);
  const auto check = [&](LayerBase&& layer, const std::vector<float>& added) {
    expectClose(layer(in), convolution(flat(x), matrix, added, 1, 1, 0),
                convolutionScale(flat(x), matrix, added, 1, 1, 0), roundings(inputs));
    expectEqual(in, x);
  };
  check(InnerProduct(innerProduct("fc", inputs, outputs, withBias), "", weights.root()), bias);
  check(InnerProduct(innerProduct("bare", inputs, outputs, noBias), "", weights.root()), {});
  // A projection leaves its input without the mean, and takes it away again the next time.
  for (int times = 0; inputs == 2048 && times < 2; ++times) {
    for (std::size_t i = 0; i < x.v.size(); ++i)
      x.v[i] = static_cast<float>(x.v[i] - mean[i % inputs]);
    check(Projection(projection("pca", outputs), "", weights.root()), {});
  }
}

LAYER_TEST(BatchNormalizationLayerTest, LayerShape, layersOf({LayerKind::batchNormalization})) {
  const auto& [row, n, h, w, outH, outW] = GetParam();
  // All terms above zero: nothing cancels, and the result is the scale of its rounding errors.
  const Image4 x = seededImage(n, row.in, h, w, 5, 0, 2);
  std::array<std::vector<float>, 4> parameters = {
      seededValues(x.c, 1, 0.5, 2), seededValues(x.c, 2, 0.5, 2), seededValues(x.c, 3, -3, -1),
      seededValues(x.c, 4, 0.1, 4)};
  parameters[3][0] = 0;
  Document weights;
  weights.add("bn-gamma", parameters[0]).add("bn-beta", parameters[1]);
  weights.add("bn-avg_mean", parameters[2]).add("bn-avg_var", parameters[3]);
  for (const double added : {1e-2, 1e-3, 1e-5}) {
    freshPool(x.v.size());
    const Tensor in = upload(x);
    const Image4 expected = batchNormalization(x, parameters, added);
    BatchNormalization layer(facezoo::batchNormalization("bn", x.c), "", weights.root(), added);
    expectClose(layer(in), expected, expected, roundings(4));
    expectEqual(in, x);
  }
}

LAYER_TEST(LrnLayerTest, MapShape, both(networkLrns, edgeLrns)) {
  // One object and alternating parameters: nothing of one call may reach the next.
  LocalResponseNormalization layer;
  const Image4 x = seededMap(GetParam(), 1, -200, 200);
  using Parameters = std::array<float, 4>;
  for (const auto& [window, alpha, beta, k] : {Parameters{5, 1e-4F, 0.75F, 1},
                                               {5, 5e-4F, 0.75F, 2},
                                               {3, 1e-2F, 0.5F, 1.5F},
                                               {4, 0.1F, 1, 1}}) {
    freshPool(x.v.size());
    const auto size = static_cast<unsigned>(window);
    const Image4 expected = lrn(x, window, alpha, beta, k);
    // The power may cost a dozen roundings more.
    expectClose(layer(upload(x), size, alpha, beta, k), expected, expected, roundings(size, 16));
  }
}

LAYER_TEST(ReluLayerTest, MapShape, networkRelus) {
  const Image4 x = seededMap(GetParam(), 1);
  freshPool(x.v.size());
  expectEqual(Relu()(upload(x)), relu(x));
}

LAYER_TEST(SoftmaxLayerTest, MapShape, both(networkSoftmaxes, edgeSoftmaxes)) {
  const Image4 x = seededMap(GetParam(), 1, -20, 20);
  freshPool(x.v.size());
  // A device's exponential errs by about one rounding per unit of its argument.
  expectClose(Softmax()(upload(x)), softmax(x), softmax(x), roundings(x.c, 2 * 20));
}

TEST_F(LayerTest, SoftmaxSubtractsNothingFromTheExponents) {
  freshPool(4);
  expectEqual(Softmax()(upload({1, 2, 1, 2, {200, -200, 0, -200}})),
              {1, 2, 1, 2, {nan, nan, 0, nan}});
}

LAYER_TEST(PoolingLayerTest, PoolingShape, both(networkPoolings, edgePoolings)) {
  const auto& [n, c, h, w, window, stride, pad, outH, outW, isAverage] = GetParam();
  for (const bool withNan : {false, true}) {
    SCOPED_TRACE(withNan ? "with NaN" : "without NaN");
    // All below zero: a padded position that took part would win.
    Image4 x = seededImage(n, c, h, w, 1, -3, -1);
    if (withNan) x.v[x.v.size() / 2] = nan;
    freshPool(x.v.size());
    const Image4 largest = pool(x, Pool::max, window, stride, pad);
    EXPECT_EQ(std::pair(outH, outW), std::pair(largest.h, largest.w));
    expectEqual(MaxPooling()(upload(x), window, stride, pad), largest);
    const Image4 average = pool(x, Pool::average, window, stride, pad);
    expectClose(AveragePooling()(upload(x), window, stride, pad), average, average,
                roundings(window * window));
  }
}

LAYER_TEST(EltwiseSumLayerTest, MapShape, both(networkSums, edgePairs)) {
  EltwiseSum layer;
  Image4 a = seededMap(GetParam(), 1), b = seededMap(GetParam(), 2), sum = a;
  a.v[0] = b.v[0] = 1e-40F;
  for (std::size_t i = 0; i < sum.v.size(); ++i) sum.v[i] = static_cast<float>(a.v[i] + b.v[i]);
  freshPool(a.v.size());
  const Tensor left = upload(a), right = upload(b);
  expectEqual(layer(left, right), sum);
  expectEqual(left, a);
  expectEqual(right, b);
  EXPECT_EQ(left.base, static_cast<LayerBase&>(layer)(left).base);
}

LAYER_TEST(SliceEltwiseMaxLayerTest, MapShape, both(networkMaxima, edgePairs)) {
  Image4 x = seededMap(GetParam(), 1);
  x.v[0] = 1e-40F;
  freshPool(x.v.size());
  const Tensor in = upload(x);
  expectEqual(SliceEltwiseMax()(in), sliceMax(x));
  expectEqual(in, x);
}

TEST_F(LayerTest, TheLargerOfTwoHalvesKeepsNanOfTheFirst) {
  freshPool(12);
  SliceEltwiseMax largerOf;
  expectEqual(largerOf(upload({1, 2, 1, 4, {nan, 1, nan, -1e-40F, 2, nan, nan, -1}})),
              {1, 1, 1, 4, {nan, 1, nan, -1e-40F}});
  EXPECT_THROW(largerOf(upload(zeros(1, 3, 2, 2))), TensorError);
}

LAYER_TEST(ConcatLayerTest, MapShape, networkConcats) {
  const Image4 a = seededMap(GetParam(), 1), b = seededMap(GetParam(), 2);
  freshPool(4 * a.v.size());
  const Tensor left = upload(a), right = upload(b);
  expectEqual(Concat()({left, right, right, left}), concat({a, b, b, a}));
}

void expectSequentialNorms(const Image4& x) {
  Image4 norms = zeros(x.n, 1, 1, 1);
  for (int n = 0; n < x.n; ++n) {
    float sum = 0;
    for (std::size_t i = x.index(n, 0, 0, 0); i < x.index(n + 1, 0, 0, 0); ++i)
      sum = std::fmaf(static_cast<float>(x.v[i]), static_cast<float>(x.v[i]), sum);
    norms.v[n] = std::sqrt(sum);
  }
  LayerTest::freshPool(x.v.size());
  const Tensor in = upload(x);
  L2Norm layer;
  expectEqual(layer(in), norms);
  expectEqual(in, x);
}

// Bit for bit, as a sequential loop has it.
LAYER_TEST(L2NormLayerTest, MapShape, both(networkNorms, edgeNorms)) {
  expectSequentialNorms(seededMap(GetParam(), 1, -100, 100));
}
TEST_F(LayerTest, L2NormOfSpecialNumbers) {
  expectSequentialNorms({5, 2, 1, 1, {0, 0, 3, 4, 1e-22F, 1e-22F, infinity, 1, nan, 1}});
}

struct Block {
  const char* name;
  const char* step;  ///< as `Chain::run` takes it
  std::array<int, 4> shape;
  LayerRow row;
};
void PrintTo(const Block& block, std::ostream* out) { *out << block.name; }

const Block blocks[] = {
    {"Normalized",
     "normalized:b/ 5 3 2",
     {2, 8, 7, 5},
     normalizedConvolution("b/", 8, 5, 3, 2, samePadding)},
    {"V1", "v1:b/ 3 4 5 2 7 6", {2, 8, 7, 5}, inceptionV1("b/", 8, {3, 4, 5, 2, 7, 6})},
    {"V1_of_pixels", "v1:b/ 3 4 5 2 7 6", {5, 8, 1, 1}, inceptionV1("b/", 8, {3, 4, 5, 2, 7, 6})},
    {"V3_1_average",
     "v3:b/ 3 4 5 2 7 6 0",
     {2, 8, 7, 5},
     inceptionV3_1("b/", 8, {3, 4, 5, 2, 7, 6}, averagePooled)},
    {"V3_1_largest",
     "v3:b/ 3 4 5 2 7 6 1",
     {2, 8, 7, 5},
     inceptionV3_1("b/", 8, {3, 4, 5, 2, 7, 6}, maxPooled)},
    {"V3_1_of_pixels",
     "v3:b/ 5 4 3 7 2 6 0",
     {5, 3, 1, 1},
     inceptionV3_1("b/", 3, {5, 4, 3, 7, 2, 6}, averagePooled)},
    {"V3_2", "v3:b/ 0 128 3 4 5", {2, 8, 6, 10}, inceptionV3_2("b/", 8, {0, 128, 3, 4, 5, 0})},
    {"MFM", "residual:b/", {2, 6, 7, 5}, inceptionMFM("b/", 6)},
    {"MFM_of_pixels", "residual:b/", {5, 1, 1, 1}, inceptionMFM("b/", 1)}};

LAYER_TEST(BlockLayerTest, Block, blocks) {
  const auto& [name, step, shape, row] = GetParam();
  const Image4 x = seededImage(shape[0], shape[1], shape[2], shape[3], 1, -60, 60);
  Chain chain;
  const Image4 expected = chain.run(step, x);
  Document weights;
  for (const auto& [array, values] : chain.weights) weights.add(array, values);
  makeWorkspace(true);
  preparePool(1 << 20, 7);
  const Tensor in = upload(x);
  const std::unique_ptr<LayerBase> layer(createLayer(row, "", weights.root()));
  expectClose((*layer)(in), expected, largest(expected), 1e-4);
  expectEqual(in, x);
}

TEST_F(LayerTest, AnUnknownBlockIsNoStepOfAChain) {
  EXPECT_THROW(Chain().run("v2:b/ 3 4", zeros(1, 1, 1, 1)), std::invalid_argument);
}

TEST_F(LayerTest, AnExtensionOfTheRightLengthIsNoWeight) {
  Document weights;
  weights.raw("fc-0", [](auto& packer) { packer.pack_ext(4, 1).pack_ext_body("1234", 4); });
  testing::internal::CaptureStdout();
  EXPECT_THROW(LayerBase().readWeight(weights.root(), "fc-0", 4, nullptr), NetworkError);
  EXPECT_EQ("weight size mismatch. fc-0 4 4\n", testing::internal::GetCapturedStdout());
}

TEST_F(LayerTest, AHolderHandsItsLayerOver) {
  Document weights;
  Layer source, target;
  for (Layer* holder : {&source, &target}) *holder = createLayer(noMean(1), "", weights.root());
  for (const Layer* from : {&source, &target}) target = *from;
  freshPool(1);
  const Tensor in({1, 1, 1, 1});
  EXPECT_EQ(in.base, source(in).base);
  EXPECT_NE(in.base, target(in).base);
}

}  // namespace
}  // namespace facezoo::test
