// Questions that the documentation of the GPU libraries leaves open, although the networks' results
// depend on them. The first answer to each is the one that the library's own documentation gives
// and that the CPU platform implements.
#include "layers/cba.h"
#include "layers/l2_norm.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "layers/softmax.h"
#include "support.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <iostream>
#include <limits>
#include <utility>

namespace facezoo::test {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();

using FactsTest = DeviceTest;

/// The last value of what a layer makes of one map of `edge` × `edge` values.
template <class Layer, class... Extra>
float lastOf(Layer&& layer, const std::vector<float>& map, Extra... extra) {
  const int edge = static_cast<int>(std::sqrt(map.size()));
  return download(layer(upload(map, {1, 1, edge, edge}), extra...)).back();
}

/// A fused convolution of one channel with a filter of ones.
float lastOfConvolution(int kernel, const std::vector<float>& map, float bias) {
  Document weights;
  weights.add("conv-0", std::vector<float>(kernel * kernel, 1)).add("conv-1", {bias});
  return lastOf(CBA(fusedConvolution("conv", 1, 1, kernel, 1, samePadding), "", weights.root()),
                map);
}

float largeSoftmax() { return download(Softmax()(upload<float>({0, 200}, {1, 2, 1, 1}))).back(); }

float sharedBitsOfL2Norm() {
  const std::vector<float> values = seededValues(18432, 1);
  float sum = 0;
  for (const float value : values) sum = std::fmaf(value, value, sum);
  const float norm = download(L2Norm()(upload(values, {1, 512, 6, 6}))).back();
  return norm == std::sqrt(sum) ? 1.0F : 0.0F;
}

TEST_F(FactsTest, AreAsDocumented) {
  preparePool(1 << 17, 4);
  const std::vector<float> ones4(4, 1), ones16(16, 1);
  std::vector<float> rising(36);
  for (int i = 0; i < 36; ++i) rising[i] = static_cast<float>(i);
  const struct {
    const char* question;
    std::function<float()> observe;
    std::vector<std::pair<float, const char*>> answers;
  } facts[] = {
      {"divisor of an average whose window overhangs the input",
       [&] { return lastOf(AveragePooling(), ones4, 3, 2, 0); },
       {{1.0F, "the positions inside the input"}, {4 / 9.0F, "the whole window"}}},
      {"divisor of an average whose window overhangs the padded input",
       [&] { return lastOf(AveragePooling(), ones16, 3, 2, 1); },
       {{1 / 4.0F, "the positions inside the padded input"},
        {1 / 9.0F, "the whole window"},
        {1.0F, "the positions inside the input"}}},
      {"a size of pooling that is rounded up",
       [&] { return lastOf(MaxPooling(), rising, 3, 2, 0); },
       {{35, "accepted, and the last window computed"}}},
      {"a NaN that comes first in a window of max pooling",
       [&] {
         return lastOf(MaxPooling(), {nan, 1, 2, 3}, 2, 2, 0);
       },
       {{nan, "stays"}, {3, "goes"}}},
      {"a NaN that comes last in a window of max pooling",
       [&] {
         return lastOf(MaxPooling(), {1, 2, 3, nan}, 2, 2, 0);
       },
       {{nan, "stays"}, {3, "goes"}}},
      {"Relu of NaN", [] { return lastOf(Relu(), {nan}); }, {{nan, "NaN"}, {0, "0"}}},
      {"fused convolution, 1 x 1, whose sum is NaN",
       [] { return lastOfConvolution(1, {1}, nan); },
       {{0, "0"}, {nan, "NaN"}}},
      {"fused convolution, 3 x 3, with a NaN in its input",
       [] {
         return lastOfConvolution(3, {1, 1, 1, nan}, 0);
       },
       {{0, "0"}, {nan, "NaN"}}},
      {"softmax of values whose exponentials overflow",
       largeSoftmax,
       {{nan, "NaN: no maximum is subtracted"}, {1, "1: the maximum is subtracted"}}},
      {"L2 norm of 18432 values",
       sharedBitsOfL2Norm,
       {{1, "the sequential loop, bit for bit"}, {0, "not the sequential loop"}}},
  };
  for (const auto& fact : facts) {
    const float seen = fact.observe();
    const auto isSeen = [&](const auto& answer) {
      return std::isnan(answer.first) ? std::isnan(seen) : std::abs(answer.first - seen) < 1e-6F;
    };
    const auto answer = std::find_if(fact.answers.begin(), fact.answers.end(), isSeen);
    const std::string verdict =
        answer == fact.answers.end() ? "neither: " + std::to_string(seen) : answer->second;
    std::cout << "verdict on " << fact.question << ": " << verdict << "\n";
    EXPECT_TRUE(answer == fact.answers.begin()) << fact.question << ": " << verdict;
  }
}

}  // namespace
}  // namespace facezoo::test
