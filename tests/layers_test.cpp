#include "layer_factory.h"
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

#include <array>
#include <cmath>
#include <limits>
#include <stdexcept>
#include <tuple>

namespace facezoo::test {
namespace {

using testing::PrintToString;
using Shape = std::array<int, 4>;  // n, c, h, w
constexpr double epsilon = std::numeric_limits<float>::epsilon();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

struct LayerTest : DeviceTest {
  // Blocks nobody has written to, so that an output element left out shows.
  void freshPool() {
    freePool();
    preparePool(4 << 20, 7);
  }
  void SetUp() override {
    DeviceTest::SetUp();
    if (!IsSkipped()) freshPool();
  }
};

Tensor upload(const Image4& x) {
  return test::upload(std::vector<float>(x.v.begin(), x.v.end()), {x.n, x.c, x.h, x.w});
}

TEST_F(LayerTest, InputConversion) {
  const std::vector<float> means = {104, 117, 123};
  const Shape shapes[] = {{1, 1, 1, 1},   {1, 2, 2, 3},   {5, 1, 33, 3},  // n, h, w, c
                          {2, 33, 31, 1}, {5, 7, 64, 3},  {2, 65, 3, 2},
                          {2, 67, 83, 3}, {1, 2, 8999, 1}};
  for (const Shape& shape : shapes) {
    SCOPED_TRACE(PrintToString(shape));
    const int n = shape[0], h = shape[1], w = shape[2], c = shape[3];
    const auto bytes = seededBytes(static_cast<std::size_t>(n) * h * w * c, 1);
    const auto image = seededValues(static_cast<std::size_t>(h) * w * c, 2, 0, 255);
    Document weights;
    weights.add("inMean-0", image);
    const auto check = [&](const LayerRow& row, const std::vector<float>& mean) {
      TransformNHWC2NCHW layer(row, "", weights.root());
      freshPool();
      const Image4 expected = convertInput({n, h, w, c, {bytes.begin(), bytes.end()}}, mean);
      expectClose(layer(test::upload(bytes, {n, h, w, c})), expected, expected, epsilon);
    };
    check(noMean(c), {});
    check(channelMean(means[0], means[1], means[2]), {&means[0], &means[0] + c});
    check(meanImage(w, h, c), image);
  }
}

TEST_F(LayerTest, Convolution) {
  // n, c, h, w, outputs, kernel, stride, padded, Ho, Wo
  const std::array<int, 10> cases[] = {
      {1, 1, 1, 1, 1, 1, 1, 1, 1, 1},       {5, 1, 1, 1, 3, 3, 1, 1, 1, 1},
      {1, 3, 7, 7, 4, 7, 1, 0, 1, 1},       {1, 1, 64, 64, 16, 7, 2, 1, 32, 32},
      {2, 3, 56, 57, 8, 7, 2, 0, 25, 26},   {5, 3, 7, 9, 4, 3, 1, 1, 7, 9},
      {1, 20, 13, 11, 24, 3, 1, 1, 13, 11}, {5, 16, 14, 14, 33, 3, 1, 0, 12, 12},
      {2, 6, 13, 12, 9, 3, 2, 1, 7, 6},     {2, 5, 9, 6, 7, 5, 1, 1, 9, 6},
      {1, 64, 28, 28, 96, 1, 1, 0, 28, 28}, {5, 33, 7, 5, 17, 1, 1, 1, 7, 5},
      {2, 4, 11, 10, 5, 1, 2, 0, 6, 5}};
  for (const auto& t : cases) {
    const auto& [batch, c, h, w, outputs, kernel, stride, padded, outH, outW] = t;
    SCOPED_TRACE(PrintToString(t));
    const int taps = c * kernel * kernel;
    const auto filter = seededValues(static_cast<std::size_t>(outputs) * taps, 1);
    const auto bias = seededValues(outputs, 2);
    Document weights;
    weights.add("biased-0", filter).add("biased-1", bias).add("bare-0", filter);
    auto& root = weights.root();
    const bool pads = padded != 0;
    CBA fused(fusedConvolution("biased", c, outputs, kernel, stride, pads), "", root);
    Convolution2D biased(facezoo::convolution("biased", c, outputs, kernel, stride, pads, withBias),
                         "", root);
    Convolution2D bare(facezoo::convolution("bare", c, outputs, kernel, stride, pads, noBias), "",
                       root);
    // The second batch size makes the layers adapt what they have prepared for the first.
    for (int n : {batch, batch + 1}) {
      const Image4 x = seededImage(n, c, h, w, 3);
      const int pad = pads ? kernel / 2 : 0;
      const Image4 sums = convolution(x, filter, bias, kernel, stride, pad);
      const Image4 scale = convolutionScale(x, filter, bias, kernel, stride, pad);
      EXPECT_EQ(std::pair(outH, outW), std::pair(sums.h, sums.w));
      const auto check = [&](LayerBase& layer, const Image4& expected) {
        freshPool();
        // Algorithms that transform tiles multiply by numbers up to 8 and back: each rounding
        // weighs that much more.
        expectClose(layer(upload(x)), expected, scale, roundings(taps, 128));
      };
      check(fused, relu(sums));
      check(biased, sums);
      check(bare, convolution(x, filter, {}, kernel, stride, pad));
    }
  }
}

TEST_F(LayerTest, MatrixProducts) {
  const std::array<int, 5> cases[] = {// n, c, h, w, outputs
                                      {1, 1, 1, 1, 1},     {1, 3, 5, 7, 11},  {2, 3, 5, 7, 11},
                                      {5, 512, 6, 6, 3},   {1, 512, 6, 6, 3}, {5, 37, 1, 1, 130},
                                      {1, 512, 2, 2, 130}, {5, 2048, 1, 1, 7}};
  for (const auto& t : cases) {
    const auto& [n, c, h, w, outputs] = t;
    SCOPED_TRACE(PrintToString(t));
    Image4 x = seededImage(n, c, h, w, 1);
    const int inputs = flat(x).c;
    const auto matrix = seededValues(static_cast<std::size_t>(outputs) * inputs, 2);
    const auto bias = seededValues(outputs, 3, 1, 2), mean = seededValues(inputs, 4, 1, 2);
    Document weights;
    weights.add("fc-0", matrix).add("fc-1", bias).add("bare-0", matrix);
    weights.add("pca-0", matrix).add("pca-1", mean);
    freshPool();
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
}

TEST_F(LayerTest, BatchNormalization) {
  using Case = std::pair<Shape, double>;
  for (const auto& [t, added] :
       {Case{{5, 17, 5, 7}, 1e-2}, {{1, 1024, 1, 1}, 1e-5}, {{2, 64, 14, 14}, 1e-3}}) {
    SCOPED_TRACE(PrintToString(t));
    freshPool();
    // All terms above zero: nothing cancels, and the result is the scale of its rounding errors.
    const Image4 x = seededImage(t[0], t[1], t[2], t[3], 5, 0, 2);
    std::array<std::vector<float>, 4> parameters = {
        seededValues(x.c, 1, 0.5, 2), seededValues(x.c, 2, 0.5, 2), seededValues(x.c, 3, -3, -1),
        seededValues(x.c, 4, 0.1, 4)};
    parameters[3][0] = 0;
    Document weights;
    weights.add("bn-gamma", parameters[0]).add("bn-beta", parameters[1]);
    weights.add("bn-avg_mean", parameters[2]).add("bn-avg_var", parameters[3]);
    const Tensor in = upload(x);
    const Image4 expected = batchNormalization(x, parameters, added);
    BatchNormalization layer(facezoo::batchNormalization("bn", x.c), "", weights.root(), added);
    expectClose(layer(in), expected, expected, roundings(4));
    expectEqual(in, x);
  }
}

TEST_F(LayerTest, LocalResponseNormalization) {
  // One object and alternating parameters: nothing of one call may reach the next.
  LocalResponseNormalization layer;
  const Image4 x = seededImage(2, 17, 9, 5, 1, -200, 200);
  using Case = std::array<float, 4>;
  for (const auto& [window, alpha, beta, k] :
       {Case{5, 1e-4F, 0.75F, 1}, {5, 5e-4F, 0.75F, 2}, {3, 1e-2F, 0.5F, 1.5F}, {4, 0.1F, 1, 1}}) {
    freshPool();
    const auto size = static_cast<unsigned>(window);
    const Image4 expected = lrn(x, window, alpha, beta, k);
    // The power may cost a dozen roundings more.
    expectClose(layer(upload(x), size, alpha, beta, k), expected, expected, roundings(size, 16));
  }
}

TEST_F(LayerTest, ReluKeepsNan) {
  expectEqual(Relu()(upload({1, 2, 1, 3, {-3.5, 0, 2.25, nan, infinity, -infinity}})),
              {1, 2, 1, 3, {0, 0, 2.25, nan, infinity, 0}});
}

TEST_F(LayerTest, Softmax) {
  for (const Shape& t :
       {Shape{1, 1, 3, 2}, {1, 2, 1, 1}, {5, 3, 1, 1}, {5, 26, 1, 1}, {2, 4, 3, 5}}) {
    SCOPED_TRACE(PrintToString(t));
    freshPool();
    const Image4 x = seededImage(t[0], t[1], t[2], t[3], 1, -20, 20);
    // A device's exponential errs by about one rounding per unit of its argument.
    expectClose(Softmax()(upload(x)), softmax(x), softmax(x), roundings(t[1], 2 * 20));
  }
  // Nothing is subtracted from the exponents.
  expectEqual(Softmax()(upload({1, 2, 1, 2, {200, -200, 0, -200}})),
              {1, 2, 1, 2, {nan, nan, 0, nan}});
}

TEST_F(LayerTest, Pooling) {
  // n, c, h, w, window, stride, pad, Ho, Wo
  const std::array<int, 9> cases[] = {
      {1, 1, 1, 1, 1, 1, 0, 1, 1},       {1, 1, 2, 2, 3, 2, 0, 1, 1},
      {1, 3, 112, 112, 3, 2, 0, 56, 56}, {5, 2, 28, 28, 3, 1, 1, 28, 28},
      {2, 3, 14, 14, 3, 2, 0, 7, 7},     {2, 3, 7, 7, 5, 3, 0, 2, 2},
      {1, 2, 16, 16, 5, 3, 0, 5, 5},     {5, 3, 7, 7, 7, 1, 0, 1, 1},
      {2, 5, 13, 10, 3, 2, 1, 7, 6},     {1, 2, 6, 9, 2, 2, 0, 3, 5},
      {1, 16, 9, 33, 3, 1, 1, 9, 33},    {2, 3, 17, 20, 3, 3, 0, 6, 7}};
  for (const auto& t : cases)
    for (bool withNan : {false, true}) {
      const auto& [n, c, h, w, window, stride, pad, outH, outW] = t;
      SCOPED_TRACE(PrintToString(t) + (withNan ? " with NaN" : ""));
      freshPool();
      // All below zero: a padded position that took part would win.
      Image4 x = seededImage(n, c, h, w, 1, -3, -1);
      if (withNan) x.v[x.v.size() / 2] = nan;
      const Image4 largest = pool(x, Pool::max, window, stride, pad);
      EXPECT_EQ(std::pair(outH, outW), std::pair(largest.h, largest.w));
      expectEqual(MaxPooling()(upload(x), window, stride, pad), largest);
      const Image4 average = pool(x, Pool::average, window, stride, pad);
      expectClose(AveragePooling()(upload(x), window, stride, pad), average, average,
                  roundings(window * window));
    }
}

TEST_F(LayerTest, ElementWise) {
  SliceEltwiseMax largerOf;
  EltwiseSum sumOf;
  for (const Shape& t : {Shape{1, 2, 1, 1}, {5, 6, 3, 5}, {2, 4, 16, 32}, {2, 10, 67, 71}}) {
    SCOPED_TRACE(PrintToString(t));
    freshPool();
    Image4 a = seededImage(t[0], t[1], t[2], t[3], 1), b = seededImage(t[0], t[1], t[2], t[3], 2);
    a.v[0] = b.v[0] = 1e-40F;
    const Tensor left = upload(a), right = upload(b);
    Image4 sum = a;
    for (std::size_t i = 0; i < sum.v.size(); ++i) sum.v[i] = static_cast<float>(a.v[i] + b.v[i]);
    expectEqual(largerOf(left), sliceMax(a));
    expectEqual(sumOf(left, right), sum);
    expectEqual(left, a);
    expectEqual(right, b);
    EXPECT_EQ(left.base, static_cast<LayerBase&>(sumOf)(left).base);
  }
  expectEqual(largerOf(upload({1, 2, 1, 4, {nan, 1, nan, -1e-40F, 2, nan, nan, -1}})),
              {1, 1, 1, 4, {nan, 1, nan, -1e-40F}});
  EXPECT_THROW(largerOf(upload(zeros(1, 3, 2, 2))), TensorError);
}

TEST_F(LayerTest, L2NormIsTheSequentialLoopBitForBit) {
  L2Norm layer;
  const Shape shapes[] = {{2, 1, 1, 1},   {129, 4, 1, 1},  {129, 5, 1, 1}, {300, 7, 1, 1},
                          {5, 131, 1, 1}, {5, 2048, 1, 1}, {5, 128, 8, 8}, {5, 512, 6, 6}};
  std::vector<Image4> inputs = {{5, 2, 1, 1, {0, 0, 3, 4, 1e-22F, 1e-22F, infinity, 1, nan, 1}}};
  for (const Shape& t : shapes) inputs.push_back(seededImage(t[0], t[1], t[2], t[3], 1, -100, 100));
  for (const Image4& x : inputs) {
    SCOPED_TRACE(testing::Message() << x.n << " samples of " << x.index(1, 0, 0, 0));
    Image4 norms = zeros(x.n, 1, 1, 1);
    for (int n = 0; n < x.n; ++n) {
      float sum = 0;
      for (std::size_t i = x.index(n, 0, 0, 0); i < x.index(n + 1, 0, 0, 0); ++i)
        sum = std::fmaf(static_cast<float>(x.v[i]), static_cast<float>(x.v[i]), sum);
      norms.v[n] = std::sqrt(sum);
    }
    freshPool();
    const Tensor in = upload(x);
    expectEqual(layer(in), norms);
    expectEqual(in, x);
  }
}

TEST_F(LayerTest, Blocks) {
  const struct {
    const char* step;
    Shape shape;
    LayerRow row;
  } cases[] = {
      {"normalized:b/ 5 3 2", {2, 8, 7, 5}, normalizedConvolution("b/", 8, 5, 3, 2, samePadding)},
      {"v1:b/ 3 4 5 2 7 6", {2, 8, 7, 5}, inceptionV1("b/", 8, {3, 4, 5, 2, 7, 6})},
      {"v1:b/ 3 4 5 2 7 6", {5, 8, 1, 1}, inceptionV1("b/", 8, {3, 4, 5, 2, 7, 6})},
      {"v3:b/ 3 4 5 2 7 6 0",
       {2, 8, 7, 5},
       inceptionV3_1("b/", 8, {3, 4, 5, 2, 7, 6}, averagePooled)},
      {"v3:b/ 3 4 5 2 7 6 1", {2, 8, 7, 5}, inceptionV3_1("b/", 8, {3, 4, 5, 2, 7, 6}, maxPooled)},
      {"v3:b/ 5 4 3 7 2 6 0",
       {5, 3, 1, 1},
       inceptionV3_1("b/", 3, {5, 4, 3, 7, 2, 6}, averagePooled)},
      {"v3:b/ 0 128 3 4 5", {2, 8, 6, 10}, inceptionV3_2("b/", 8, {0, 128, 3, 4, 5, 0})},
      {"residual:b/", {2, 6, 7, 5}, inceptionMFM("b/", 6)},
      {"residual:b/", {5, 1, 1, 1}, inceptionMFM("b/", 1)}};
  for (const auto& t : cases) {
    SCOPED_TRACE(testing::Message() << t.step << " on " << PrintToString(t.shape));
    const Image4 x = seededImage(t.shape[0], t.shape[1], t.shape[2], t.shape[3], 1, -60, 60);
    Chain chain;
    const Image4 expected = chain.run(t.step, x);
    Document weights;
    for (const auto& [name, values] : chain.weights) weights.add(name, values);
    freshPool();
    const Tensor in = upload(x);
    const std::unique_ptr<LayerBase> layer(createLayer(t.row, "", weights.root()));
    expectClose((*layer)(in), expected, largest(expected), 1e-4);
    expectEqual(in, x);
  }
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
  const Tensor in({1, 1, 1, 1});
  EXPECT_EQ(in.base, source(in).base);
  EXPECT_NE(in.base, target(in).base);
}

}  // namespace
}  // namespace facezoo::test
