#include "layers/cba.h"
#include "layers/concat.h"
#include "layers/inner_product.h"
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "layers/softmax.h"
#include "layers/transform.h"
#include "reference.h"

#include <array>
#include <limits>
#include <tuple>

namespace facezoo::test {
namespace {

using testing::PrintToString;
constexpr double epsilon = std::numeric_limits<float>::epsilon();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

struct LayerTest : DeviceTest {
  // Blocks nobody has written to, so that an output element left out shows.
  void freshPool() {
    freePool();
    preparePool(4 << 20, 6);
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
  const std::vector<float> channelMean = {104, 117, 123};
  using Case = std::array<int, 4>;
  for (const Case& shape : {Case{1, 1, 1, 1},
                            {1, 2, 2, 3},
                            {5, 1, 33, 3},
                            {2, 33, 31, 1},
                            {5, 7, 64, 3},
                            {2, 65, 3, 2}}) {
    SCOPED_TRACE(PrintToString(shape));
    const int n = shape[0], h = shape[1], w = shape[2], c = shape[3];
    const auto bytes = seededBytes(static_cast<std::size_t>(n) * h * w * c, 1);
    const auto meanImage = seededValues(static_cast<std::size_t>(h) * w * c, 2, 0, 255);
    Document weights;
    weights.add("inMean-0", meanImage);
    const auto check = [&](TransformNHWC2NCHW&& layer, const std::vector<float>& mean) {
      freshPool();
      const Image4 expected = convertInput(bytes, n, h, w, c, mean);
      expectClose(layer(test::upload(bytes, {n, h, w, c})), expected, expected, epsilon);
    };
    check(TransformNHWC2NCHW("inMean"), {});
    check(TransformNHWC2NCHW("inMean", channelMean.data()), {&channelMean[0], &channelMean[0] + c});
    check(TransformNHWC2NCHW("inMean", weights.root(), w, h, c), meanImage);
  }
  // A mean image has the order of the bytes, not that of the result.
  Document weights;
  weights.add("inMean-0", {0, 10, 20, 1, 11, 21});
  TransformNHWC2NCHW layer("inMean", weights.root(), 2, 1, 3);
  const std::vector<std::uint8_t> bytes = {0, 10, 20, 1, 11, 25};
  expectEqual(layer(test::upload(bytes, {1, 1, 2, 3})), {1, 3, 1, 2, {0, 0, 0, 0, 0, 4}});
}

TEST_F(LayerTest, FusedConvolution) {
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
    weights.add("conv-0", filter).add("conv-1", bias);
    CBA layer("conv", weights.root(), c, outputs, kernel, stride, padded != 0);
    // The second batch size makes the layer adapt what it has prepared for the first.
    for (int n : {batch, batch + 1}) {
      freshPool();
      const Image4 x = seededImage(n, c, h, w, 3);
      const int pad = padded != 0 ? kernel / 2 : 0;
      const Image4 expected = relu(convolution(x, filter, bias, kernel, stride, pad));
      EXPECT_EQ(std::pair(outH, outW), std::pair(expected.h, expected.w));
      // Algorithms that transform tiles round a few dozen times more than they have products.
      expectClose(layer(upload(x)), expected,
                  convolutionScale(x, filter, bias, kernel, stride, pad), roundings(taps, 32));
    }
  }
  // Below zero is exactly zero.
  Document weights;
  weights.add("conv-0", {1, -1}).add("conv-1", {-0.5F, 0});
  CBA layer("conv", weights.root(), 1, 2, 1, 1, false);
  expectEqual(layer(upload({1, 1, 1, 3, {-2, 0.25, 2}})), {1, 2, 1, 3, {0, 0, 1.5, 2, 0, 0}});
}

TEST_F(LayerTest, InnerProduct) {
  using Case = std::array<int, 5>;  // n, c, h, w, outputs
  for (const Case& t : {Case{1, 1, 1, 1, 1},
                        {1, 3, 5, 7, 11},
                        {2, 3, 5, 7, 11},
                        {5, 512, 6, 6, 3},
                        {1, 512, 6, 6, 3},
                        {5, 37, 1, 1, 130}})
    for (bool noBias : {false, true}) {
      SCOPED_TRACE(PrintToString(t) + (noBias ? " without bias" : ""));
      freshPool();
      const Image4 x = seededImage(t[0], t[1], t[2], t[3], 1);
      const int inputs = flat(x).c, outputs = t[4];
      const auto matrix = seededValues(static_cast<std::size_t>(outputs) * inputs, 2);
      const auto bias = seededValues(noBias ? 0 : outputs, 3, 1, 2);
      Document weights;
      weights.add("fc-0", matrix);
      if (!noBias) weights.add("fc-1", bias);
      InnerProduct layer("fc", weights.root(), inputs, outputs, noBias);
      expectClose(layer(upload(x)), convolution(flat(x), matrix, bias, 1, 1, 0),
                  convolutionScale(flat(x), matrix, bias, 1, 1, 0), roundings(inputs));
    }
}

TEST_F(LayerTest, LocalResponseNormalization) {
  // One object and alternating parameters: nothing of one call may reach the next.
  LocalResponseNormalization layer;
  using Case = std::tuple<std::array<int, 4>, unsigned, float, float, float>;
  for (const Case& t : {Case{{1, 1, 1, 1}, 5, 1e-4F, 0.75F, 1.0F},
                        {{5, 3, 3, 5}, 5, 5e-4F, 0.75F, 2.0F},
                        {{2, 4, 7, 7}, 5, 1e-4F, 0.75F, 1.0F},
                        {{2, 64, 14, 13}, 5, 5e-4F, 0.75F, 2.0F},
                        {{1, 17, 9, 16}, 3, 1e-2F, 0.5F, 1.5F},
                        {{5, 9, 1, 2}, 4, 1e-2F, 0.6F, 1.0F}}) {
    const auto& [shape, size, alpha, beta, k] = t;
    SCOPED_TRACE(PrintToString(t));
    freshPool();
    const Image4 x = seededImage(shape[0], shape[1], shape[2], shape[3], 1, -200, 200);
    const Image4 expected = lrn(x, static_cast<int>(size), alpha, beta, k);
    // The power may cost a dozen roundings more.
    expectClose(layer(upload(x), size, alpha, beta, k), expected, expected, roundings(size, 16));
  }
}

TEST_F(LayerTest, ReluKeepsNan) {
  expectEqual(Relu()(upload({1, 2, 1, 3, {-3.5, 0, 2.25, nan, infinity, -infinity}})),
              {1, 2, 1, 3, {0, 0, 2.25, nan, infinity, 0}});
  const Image4 x = seededImage(5, 3, 7, 9, 1);
  expectEqual(Relu()(upload(x)), relu(x));
}

TEST_F(LayerTest, Softmax) {
  using Case = std::array<int, 4>;
  for (const Case& t :
       {Case{1, 1, 3, 2}, {1, 2, 1, 1}, {5, 3, 1, 1}, {5, 26, 1, 1}, {2, 4, 3, 5}}) {
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
      {5, 3, 7, 7, 7, 1, 0, 1, 1},       {2, 5, 13, 10, 3, 2, 1, 7, 6},
      {1, 2, 6, 9, 2, 2, 0, 3, 5},       {1, 16, 9, 33, 3, 1, 1, 9, 33}};
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
  const Image4 border{1, 1, 3, 3, {4, 6, 4, 6, 9, 6, 4, 6, 4}};
  expectClose(AveragePooling()(upload({1, 1, 3, 3, std::vector<double>(9, 9)}), 3, 1, 1), border,
              border, roundings(9));
}

TEST_F(LayerTest, Concatenation) {
  using Case = std::tuple<std::array<int, 3>, std::vector<int>>;  // n, h, w and the channels
  for (const Case& t : {Case{{1, 1, 1}, {2, 3}},
                        {{2, 28, 28}, {64, 32}},
                        {{5, 3, 5}, {4}},
                        {{2, 7, 3}, {1, 5, 2, 3}}}) {
    const auto& [shape, channels] = t;
    SCOPED_TRACE(PrintToString(t));
    freshPool();
    std::vector<Image4> parts;
    std::vector<Tensor> tensors;
    for (int c : channels) {
      parts.push_back(seededImage(shape[0], c, shape[1], shape[2], c));
      tensors.push_back(upload(parts.back()));
    }
    const Tensor joined = Concat()(tensors);
    EXPECT_NE(tensors.front().base, joined.base);
    expectEqual(joined, concat(parts));
    expectEqual(tensors.back(), parts.back());
  }
}

}  // namespace
}  // namespace facezoo::test
