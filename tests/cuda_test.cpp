// The production platform: its own code, the memory of a card, and a machine without one.
#include "GPU.h"
#include "convolution_query.h"
#include "layers/cba.h"
#include "seeded_network.h"

#include <algorithm>
#include <iostream>
#include <set>

namespace facezoo::test {
namespace {

TEST(WithoutADriver, DeviceSelectionReportsWhatTheRuntimeReturned) {
  int devices = 0;
  const cudaError_t status = cudaGetDeviceCount(&devices);
  if (status == cudaSuccess) GTEST_SKIP() << "there is a driver";
  testing::internal::CaptureStderr();
  try {
    GPU gpu;
    ADD_FAILURE() << "nothing was thrown";
  } catch (cudaError thrown) {
    EXPECT_EQ(status, thrown);
  }
  const std::string line = std::string("[Error] ") + cudaGetErrorString(status) +
                           " (cuda error code: " + std::to_string(status) +
                           ") at src/initGPU.cpp line ";
  EXPECT_EQ(line, testing::internal::GetCapturedStderr().substr(0, line.size()));
}

#if CUDNN_MAJOR >= 8

TEST(ConvolutionQuery, TakesTheFirstThatRunsFitsAndIsPlain) {
  constexpr auto gemm = CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM;
  constexpr auto precomputed = CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM;
  constexpr auto winograd = CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED;
  constexpr auto ok = CUDNN_STATUS_SUCCESS, no = CUDNN_STATUS_NOT_SUPPORTED;
  constexpr auto fma = CUDNN_FMA_MATH, either = CUDNN_DEFAULT_MATH, tensor = CUDNN_TENSOR_OP_MATH;
  struct Candidate {
    cudnnConvolutionFwdAlgo_t algorithm;
    cudnnStatus_t status;
    std::size_t memory;
    cudnnMathType_t math;
  };
  const struct {
    const char* what;
    std::vector<Candidate> candidates;
    std::size_t winogradNeeds;
    cudnnConvolutionFwdAlgo_t chosen;
  } cases[] = {
      {"nothing", {}, 0, gemm},
      {"the first", {{winograd, ok, 100, fma}, {precomputed, ok, 0, fma}}, 100, winograd},
      {"as the device likes it", {{winograd, ok, 100, either}}, 100, winograd},
      {"does not run", {{winograd, no, 0, fma}, {precomputed, ok, 0, fma}}, 0, precomputed},
      {"does not fit", {{winograd, ok, 101, fma}, {precomputed, ok, 9, fma}}, 0, precomputed},
      {"tensor cores", {{winograd, ok, 0, tensor}, {precomputed, ok, 0, fma}}, 0, precomputed},
      {"needs more in fp32",
       {{winograd, ok, 0, either}, {precomputed, ok, 0, fma}},
       101,
       precomputed},
      {"none fits", {{winograd, ok, 101, fma}, {precomputed, ok, 102, fma}}, 101, gemm},
  };
  for (const auto& c : cases) {
    std::vector<cudnnConvolutionFwdAlgoPerf_t> list(c.candidates.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
      list[i].algo = c.candidates[i].algorithm;
      list[i].status = c.candidates[i].status;
      list[i].memory = c.candidates[i].memory;
      list[i].mathType = c.candidates[i].math;
    }
    const auto needsAtMost = [&](cudnnConvolutionFwdAlgo_t algorithm, std::size_t limit) {
      return algorithm != winograd || c.winogradNeeds <= limit;
    };
    EXPECT_EQ(c.chosen, firstThatFits(list.data(), static_cast<int>(list.size()), 100, needsAtMost))
        << c.what;
  }
}

TEST(ConvolutionQuery, SeesEveryRowOfTheList) {
  // An algorithm may have a row for each math type. The one that fits is the last of all these
  // rows.
  constexpr int rows = 2 * CUDNN_CONVOLUTION_FWD_ALGO_COUNT;
  const auto maxCount = [](int* count) {
    *count = rows;
    return CUDNN_STATUS_SUCCESS;
  };
  const auto list = [&](int capacity, int* count, cudnnConvolutionFwdAlgoPerf_t* candidates) {
    *count = std::min(capacity, rows);
    for (int i = 0; i < *count; ++i) {
      candidates[i].algo = CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD;
      candidates[i].status = CUDNN_STATUS_SUCCESS;
      candidates[i].mathType = i == rows - 1 ? CUDNN_FMA_MATH : CUDNN_TENSOR_OP_MATH;
    }
    return CUDNN_STATUS_SUCCESS;
  };
  const auto fits = [](auto, std::size_t) { return true; };
  cudnnConvolutionFwdAlgo_t chosen{};
  EXPECT_EQ(CUDNN_STATUS_SUCCESS, chooseFromList(maxCount, list, fits, 100, &chosen));
  EXPECT_EQ(CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD, chosen);

  const auto fails = [](auto...) { return CUDNN_STATUS_NOT_SUPPORTED; };
  EXPECT_EQ(CUDNN_STATUS_NOT_SUPPORTED, chooseFromList(fails, list, fits, 100, &chosen));
  EXPECT_EQ(CUDNN_STATUS_NOT_SUPPORTED, chooseFromList(maxCount, fails, fits, 100, &chosen));
}

/// A fused convolution whose descriptors tests can read.
struct OpenConvolution : CBA {
  using CBA::algorithm_, CBA::CBA, CBA::configure, CBA::convolution_, CBA::filterShape_,
      CBA::handle_, CBA::input_, CBA::output_, CBA::workspaceSize;
};

using CudaTest = DeviceTest;

TEST_F(CudaTest, ConvolutionsStayInPlainFloat) {
  // in, out, kernel, stride, edge: one of each kind of layer
  constexpr int layers[][5] = {{3, 64, 7, 2, 224},
                               {64, 192, 3, 1, 56},
                               {480, 192, 1, 1, 14},
                               {32, 128, 5, 1, 14},
                               {128, 160, 3, 2, 28}};
  std::set<std::string> reported;
  for (const auto& [in, out, kernel, stride, edge] : layers)
    for (const int batch : {1, 8}) {
      Document weights;
      weights.add("conv-0", std::vector<float>(std::size_t(in) * out * kernel * kernel));
      weights.add("conv-1", std::vector<float>(out));
      OpenConvolution layer(fusedConvolution("conv", in, out, kernel, stride, samePadding), "",
                            weights.root());
      layer.configure({batch, in, edge, edge});
      cudnnMathType_t math = CUDNN_DEFAULT_MATH;
      CheckCudnn(cudnnGetConvolutionMathType(layer.convolution_, &math));
      EXPECT_EQ(CUDNN_FMA_MATH, math);
      std::size_t needed = 0;
      CheckCudnn(cudnnGetConvolutionForwardWorkspaceSize(layer.handle_, layer.input_,
                                                         layer.filterShape_, layer.convolution_,
                                                         layer.output_, layer.algorithm_, &needed));
      EXPECT_LE(needed, layer.workspaceSize);
      int count = 0;
      CheckCudnn(cudnnGetConvolutionForwardAlgorithmMaxCount(layer.handle_, &count));
      std::vector<cudnnConvolutionFwdAlgoPerf_t> candidates(count);
      CheckCudnn(cudnnGetConvolutionForwardAlgorithm_v7(
          layer.handle_, layer.input_, layer.filterShape_, layer.convolution_, layer.output_, count,
          &count, candidates.data()));
      for (int i = 0; i < count; ++i)
        if (candidates[i].status == CUDNN_STATUS_SUCCESS)
          reported.insert(std::to_string(candidates[i].mathType));
      std::cout << "measured " << in << " to " << out << " channels, " << kernel << " x " << kernel
                << ", batch " << batch << ": algorithm " << layer.algorithm_ << " in "
                << (needed >> 10U) << " KiB\n";
    }
  std::cout << "verdict on math types reported under plain fp32:";
  for (const std::string& type : reported) std::cout << " " << type;
  std::cout << " (" << CUDNN_DEFAULT_MATH << " default, " << CUDNN_FMA_MATH << " fp32)\n";
}

#endif

std::size_t freeMemory() {
  std::size_t free = 0, all = 0;
  CheckCuda(cudaMemGetInfo(&free, &all));
  return free;
}

struct DeviceMemory : DeviceTest, testing::WithParamInterface<NetworkKind> {};

TEST_P(DeviceMemory, IsTheSameAfterTenThousandPasses) {
  const NetworkTable& table = GetParam().table;
  const auto net = GetParam().make(2);
  ForwardCall forward{table, 2};
  const std::vector<float> one = forward.results(*net, 1), two = forward.results(*net, 2);
  const std::size_t before = freeMemory();
  for (int pass = 0; pass < 10000; ++pass) {
    const int batch = pass % 100 == 0 ? 2 : 1;
    forward(*net, batch);
    if (pass % 500 == 0) {
      EXPECT_EQ(before, freeMemory()) << pass;
    }
  }
  EXPECT_EQ(before, freeMemory());
  EXPECT_EQ(two, forward.results(*net, 2));
  EXPECT_EQ(one, forward.results(*net, 1));
}

TEST_P(DeviceMemory, IsTheSameAfterEveryLifeFromTheSecondOn) {
  const NetworkTable& table = GetParam().table;
  ForwardCall forward{table, 1};
  // Copying the weights of the other networks a thousand times would take too long.
  const int lives = &table == &dexpressionNet ? 1000 : 20;
  std::size_t expected = 0;
  for (int life = 1; life <= lives; ++life) {
    auto net = GetParam().make(1);
    if (life <= 2 || life % 100 == 0) forward(*net, 1);
    net.reset();
    if (life == 2) expected = freeMemory();
    if (life > 2) {
      ASSERT_EQ(expected, freeMemory()) << "after life " << life;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(, DeviceMemory, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace facezoo::test
