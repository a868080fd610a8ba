// What becomes of NaNs, infinities and subnormal numbers in inputs and in weights.
#include "layer_factory.h"
#include "layers/concat.h"
#include "layers/eltwise.h"
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "layers/softmax.h"
#include "reference.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

namespace facezoo::test {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();
// Subnormal on the CPU platform; on a card a normal number, because the GPU libraries do not say
// whether they keep subnormal ones.
constexpr float tiny = FACEZOO_SIMULATED != 0 ? 1e-40F : 1e-30F;

struct EdgeNumbers : DeviceTest {
  void SetUp() override {
    DeviceTest::SetUp();
    if (!IsSkipped()) preparePool(1 << 20, 8);
  }
};

TEST_F(EdgeNumbers, FollowTheFormulasOfLayersThatMultiplyNoMatrices) {
  const auto check = [](const char* what, const Tensor& got, const Image4& expected) {
    SCOPED_TRACE(what);
    expectClose(got, expected, expected, 1e-3);
  };
  Document weights;
  weights.add("inMean-0", {nan, infinity, -infinity, tiny});
  const std::unique_ptr<LayerBase> convert(createLayer(meanImage(2, 2, 1), "", weights.root()));
  check("mean image", (*convert)(upload<std::uint8_t>({7, 7, 7, 0, 0, 0, 0, 0}, {2, 2, 2, 1})),
        {2, 1, 2, 2, {nan, -infinity, infinity, -tiny, nan, -infinity, infinity, -tiny}});

  // In each channel after the first, one parameter is special.
  const std::array<std::vector<float>, 4> parameters = {{{1, nan, 1, 1, 1, 1, 1},
                                                         {0, 1, infinity, 1, 1, 1, 1},
                                                         {0, 0, 0, infinity, 0, 0, 0},
                                                         {1, 1, 1, 1, infinity, -1, nan}}};
  weights.add("bn-gamma", parameters[0]).add("bn-beta", parameters[1]);
  weights.add("bn-avg_mean", parameters[2]).add("bn-avg_var", parameters[3]);
  Image4 x = zeros(1, 7, 1, 4);
  for (int c = 0; c < x.c; ++c) std::copy_n(std::data({2.0F, tiny, infinity, nan}), 4, &x.v[4 * c]);
  const std::unique_ptr<LayerBase> normalize(
      createLayer(facezoo::batchNormalization("bn", x.c), "", weights.root()));
  check("batch normalization", (*normalize)(upload(x)),
        test::batchNormalization(x, parameters, 1e-5));

  std::fill(x.v.begin(), x.v.end(), 2);
  std::copy_n(std::data({infinity, nan, tiny, -infinity}), 4, &x.v[x.index(0, 3, 0, 0)]);
  check("LRN of the networks", LocalResponseNormalization()(upload(x), 5, 1e-4F, 0.75F, 1),
        lrn(x, 5, 1e-4, 0.75, 1));
  check("another LRN", LocalResponseNormalization()(upload(x), 3, 1e-2F, 0.5F, 2),
        lrn(x, 3, 1e-2, 0.5, 2));

  std::vector<double> rows = {infinity, -infinity, -infinity, -infinity, 1,        nan, tiny, 0,
                              1,        2,         -infinity, -infinity, infinity, 3,   0,    0};
  const Tensor windows = upload({1, 1, 2, 8, rows});
  check("largest", MaxPooling()(windows, 2, 2, 0), {1, 1, 1, 4, {infinity, -infinity, nan, tiny}});
  check("average", AveragePooling()(windows, 2, 2, 0),
        {1, 1, 1, 4, {nan, -infinity, nan, tiny / 4}});

  const Image4 pairs = {1, 2, 1, 5, {infinity, -infinity, nan, tiny, -tiny, 0, 0, 0, tiny, -tiny}};
  const Tensor in = upload(pairs);
  check("softmax", Softmax()(in), softmax(pairs));
  check("rectified", Relu()(in), {1, 2, 1, 5, {infinity, 0, nan, tiny, 0, 0, 0, 0, tiny, 0}});
  check("larger", SliceEltwiseMax()(in), {1, 1, 1, 5, {infinity, 0, nan, tiny, -tiny}});
  check("joined", Concat()({in, in}), concat({pairs, pairs}));
  check("difference of infinities",
        EltwiseSum()(upload({1, 1, 1, 3, {infinity, infinity, tiny}}),
                     upload({1, 1, 1, 3, {-infinity, 1, tiny}})),
        {1, 1, 1, 3, {nan, infinity, 2 * tiny}});
}

/// Whether `got` is a permitted result of a sum that the NaN or infinity `special` takes part in.
using Outcome = bool (*)(float special, float got);
bool notFinite(float /*special*/, float got) { return !std::isfinite(got); }
// Division or a ReLU may make a finite number of an infinity.
bool nanOfNan(float special, float got) { return std::isnan(got) || !std::isnan(special); }
// The ReLU of a fused convolution makes 0 of NaN, and Winograd's transforms make NaN of an
// infinity.
bool zeroOfNan(float special, float got) {
  return got == 0 || (got == infinity && !std::isnan(special));
}
bool neverNan(float /*special*/, float got) { return !std::isnan(got); }

const struct {
  LayerRow row;
  int edge;
  Outcome outcome;
} cases[] = {{fusedConvolution("1x1", 9, 16, 1, 1, noPadding), 17, zeroOfNan},
             {fusedConvolution("3x3", 9, 16, 3, 1, samePadding), 17, zeroOfNan},
             {fusedConvolution("5x5", 9, 16, 5, 1, samePadding), 17, zeroOfNan},
             {fusedConvolution("7x7", 3, 16, 7, 1, samePadding), 17, zeroOfNan},
             {facezoo::convolution("1x1", 9, 16, 1, 1, noPadding, withBias), 17, notFinite},
             {facezoo::convolution("3x3", 9, 16, 3, 1, samePadding, withBias), 17, notFinite},
             {facezoo::convolution("5x5", 9, 16, 5, 1, samePadding, withBias), 17, notFinite},
             {facezoo::convolution("7x7", 3, 16, 7, 1, samePadding, withBias), 17, notFinite},
             {innerProduct("fc", 99, 16, withBias), 1, notFinite},
             {projection("pca", 7), 1, notFinite},
             {inceptionV1("v1/", 9, {3, 9, 9, 8, 7, 6}), 17, neverNan},
             {inceptionV3_1("v3/", 9, {3, 9, 9, 8, 7, 6}, maxPooled), 17, nanOfNan},
             {inceptionMFM("residual/", 9), 17, notFinite}};

constexpr int images = 3;
const std::string input = "input";
using Arrays = std::map<std::string, std::vector<float>>;

Arrays arraysOf(const LayerRow& row, int edge) {
  Arrays arrays;
  arrays[input] = seededValues(static_cast<std::size_t>(images) * row.in * edge * edge, 1);
  forEachWeight(std::array<LayerRow, 1>{row}, "",
                [&](const std::string& name, std::size_t elements, auto&&...) {
                  const auto seed = static_cast<unsigned>(arrays.size() + 1);
                  arrays[name] = seededValues(elements, seed, 0.5, 1.5);
                });
  return arrays;
}

std::vector<float> run(const LayerRow& row, int edge, const Arrays& arrays) {
  Document weights;
  for (const auto& [name, values] : arrays) weights.add(name, values);
  const std::unique_ptr<LayerBase> layer(createLayer(row, "", weights.root()));
  return download((*layer)(upload(arrays.at(input), {images, row.in, edge, edge})));
}

TEST_F(EdgeNumbers, ReachNoFurtherThanDocumented) {
  for (const auto& [row, edge, outcome] : cases) {
    const Arrays arrays = arraysOf(row, edge);
    const std::vector<float> clean = run(row, edge, arrays);
    const int plane = edge * edge, channels = static_cast<int>(clean.size()) / images / plane;
    const bool isBlock = row.out == 0, mixes = isBlock || row.kernel > 1;
    // Winograd's transforms spread a value over its tile, beyond the sums that it takes part in.
    const int reach = FACEZOO_SIMULATED != 0 && !isBlock ? 4 : edge;
    for (const auto& [name, values] : arrays) {
      const bool ofInput = name == input, ofAll = name == "pca-1";
      if (isBlock && !ofInput) continue;  // a weight inside a block reaches every channel of it
      // The middle of the middle image, or of the weights of the middle channel.
      const std::size_t parts = ofInput ? images : ofAll ? 1 : channels;
      const std::size_t part = values.size() / parts, middle = parts / 2 * part + part / 2;
      for (const float special : {nan, infinity, -infinity}) {
        Arrays changed = arrays;
        changed[name][middle] = special;
        const std::vector<float> got = run(row, edge, changed);
        for (int i = 0; i < static_cast<int>(got.size()) && !HasFailure(); ++i) {
          const int image = i / plane / channels, channel = i / plane % channels;
          const int away =
              std::max(std::abs(i % plane / edge - edge / 2), std::abs(i % edge - edge / 2));
          const bool related = ofInput ? image == images / 2 : ofAll || channel == channels / 2;
          const bool takesPart = related && (!ofInput || away <= row.kernel / 2);
          const bool may = takesPart ? outcome(special, got[i])
                                     : related && mixes && away <= reach &&
                                           (!std::isnan(got[i]) || outcome(nan, nan));
          EXPECT_TRUE(may || (!takesPart && clean[i] == got[i]))
              << row.name << ", " << special << " in " << name << ": image " << image
              << ", channel " << channel << ", " << away << " pixels away, " << clean[i]
              << " became " << got[i];
        }
      }
    }
  }
}

#if FACEZOO_SIMULATED
TEST_F(EdgeNumbers, SubnormalNumbersCountInEverySumOfProducts) {
  for (const auto& [row, edge, outcome] : cases) {
    if (row.out == 0) continue;
    Arrays arrays = arraysOf(row, edge);
    const std::string filter = row.name + std::string("-0"), added = row.name + std::string("-1");
    std::fill(arrays[added].begin(), arrays[added].end(), 0.0F);
    const std::vector<float> clean = run(row, edge, arrays);
    for (const std::string& name : {input, filter}) {
      SCOPED_TRACE(testing::Message() << row.name << ", " << name);
      Arrays changed = arrays;
      for (float& value : changed[name]) value *= tiny;
      const std::vector<float> got = run(row, edge, changed);
      // Subnormal numbers have few digits, of which Winograd's transforms lose some.
      const double most = std::abs(*std::max_element(clean.begin(), clean.end()));
      for (std::size_t i = 0; i < got.size(); ++i)
        ASSERT_NEAR(1.0 * tiny * clean[i], got[i], 0.02 * tiny * most) << i;
    }
  }
}
#endif

}  // namespace
}  // namespace facezoo::test
