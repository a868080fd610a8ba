// Who calls what, when and how often; what is alive in between. Seen by the platform's observer.
#include "GPU.h"
#include "layers/cba.h"
#include "layers/inner_product.h"
#include "layers/transform.h"
#include "seeded_network.h"

#include <algorithm>
#include <climits>
#include <functional>

namespace facezoo::test {
namespace {

using host_device::Call;
using Names = std::vector<std::string>;

/// The calls made while `action` runs.
template <class Action>
std::vector<Call> callsOf(const Action& action) {
  const auto calls = std::make_shared<std::vector<Call>>();  // outlives an action that throws
  host_device::setObserver([calls](const Call& call) { calls->push_back(call); });
  action();
  host_device::setObserver({});
  return *calls;
}

template <class Action>
Names namesOf(const Action& action) {
  Names names;
  for (const Call& call : callsOf(action)) names.emplace_back(call.name);
  return names;
}

std::ptrdiff_t count(const Names& names, const std::string& name) {
  return std::count(names.begin(), names.end(), name);
}

Names operator+(Names left, const Names& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

Names times(int n, const std::string& name) { return Names(static_cast<std::size_t>(n), name); }

/// Runs `action`, which must throw a `Thrown`, and returns it.
template <class Thrown, class Action>
Thrown thrownBy(const Action& action) {
  try {
    action();
  } catch (Thrown value) {
    return value;
  }
  ADD_FAILURE() << "nothing was thrown";
  return static_cast<Thrown>(-1);
}

void failAt(const char* name, std::size_t at) {
  host_device::Fault fault;
  fault.name = name;
  fault.at = at;
  host_device::setFault(fault);
}

class ContractTest : public DeviceTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(0, NetworkProbe::count());
    DeviceTest::TearDown();
  }
  std::unique_ptr<DexpressionNet> make(int maxBatch) const {
    return std::make_unique<DexpressionNet>(seededFile(dexpressionNet).c_str(), maxBatch, "");
  }
  std::vector<float> forward(DexpressionNet& net, int batch = 1) {
    std::vector<float> out(static_cast<std::size_t>(batch) * 5, -1.0F);
    const DeviceArray<std::uint8_t> images(seededImages(dexpressionNet, batch));
    EXPECT_EQ(0, net.Forward(images.data(), batch, out.data(), nullptr));
    return out;
  }
};

TEST_F(ContractTest, AFailingStatusIsClearedThenPrintedThenThrown) {
  testing::internal::CaptureStderr();
  const Names success = namesOf([] {
    CheckCuda(cudaSuccess);
    CheckCudnn(CUDNN_STATUS_SUCCESS);
    CheckCublas(CUBLAS_STATUS_SUCCESS);
  });
  EXPECT_TRUE(success.empty());
  EXPECT_EQ("", testing::internal::GetCapturedStderr());

  const struct {
    std::function<int()> fail;  ///< returns what was thrown
    int status;
    Names calls;
    std::string text;
  } cases[] = {
      {[] { return thrownBy<cudaError>([] { CheckCuda(cudaErrorMemoryAllocation); }); },
       2,
       {"cudaGetLastError", "cudaGetErrorString"},
       "[Error] out of memory (cuda error code: 2)"},
      {[] { return thrownBy<cudnnStatus_t>([] { CheckCudnn(CUDNN_STATUS_BAD_PARAM); }); },
       3,
       {"cudaGetLastError", "cudnnGetErrorString"},
       "[Error] CUDNN_STATUS_BAD_PARAM (cudnn error code: 3)"},
      {[] { return thrownBy<cublasStatus_t>([] { CheckCublas(CUBLAS_STATUS_EXECUTION_FAILED); }); },
       13,
       {"cudaGetLastError"},
       "[Error] (cublas error code: 13)"},
  };
  for (const auto& c : cases) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(c.calls, namesOf([&] { EXPECT_EQ(c.status, c.fail()); }));
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0U, line.rfind(c.text + " at tests/contract_test.cpp line ")) << line;
    EXPECT_EQ(line.size() - 1, line.find('\n')) << line;
  }
  EXPECT_EQ(cudaErrorInvalidValue, cudaFree(this));
  thrownBy<cudnnStatus_t>([] { CheckCudnn(CUDNN_STATUS_BAD_PARAM); });
  EXPECT_EQ(cudaSuccess, cudaGetLastError());
}

struct GpuProbe : GPU {
  static void forget() { DeviceID = -1; }
  static int chosen() { return DeviceID; }
};

TEST_F(ContractTest, TheFirstSuitableDeviceIsChosen) {
  constexpr std::size_t MiB = std::size_t{1} << 20;
  const struct {
    std::vector<host_device::SimulatedDevice> devices;
    int chosen, current;
  } cases[] = {
      {{{"old", 3, 5, 8192 * MiB}, {"good", 6, 1, 4096 * MiB}, {"better", 7, 5, 8192 * MiB}}, 1, 1},
      {{{"just", 5, 2, 2048 * MiB}}, 0, 0},
      {{{"short", 5, 2, 2048 * MiB - 1}, {"new", 8, 0, 80000 * MiB}}, 1, 1},
      {{{"old", 4, 9, 8192 * MiB}, {"short", 9, 0, 2047 * MiB}}, -1, 1},
      {{}, -1, 0},
  };
  for (const auto& c : cases) {
    GpuProbe::forget();
    host_device::setDevices(c.devices);
    testing::internal::CaptureStderr();
    if (c.chosen >= 0) {
      const Names calls = namesOf([] { GPU gpu; });
      EXPECT_EQ(c.chosen + 1, count(calls, "cudaGetDeviceProperties"));
      EXPECT_TRUE(namesOf([] {
                    GPU again;
                    GPU copy(again);
                    again = copy;
                  }).empty());
      EXPECT_EQ("", testing::internal::GetCapturedStderr());
    } else {
      EXPECT_EQ(0, thrownBy<GPUError>([] { GPU gpu; }));
      EXPECT_EQ("There are no available devices that support CUDA\n",
                testing::internal::GetCapturedStderr());
    }
    EXPECT_EQ(c.chosen, GpuProbe::chosen());
    int current = -1;
    EXPECT_EQ(cudaSuccess, cudaGetDevice(&current));
    EXPECT_EQ(c.current, current);
  }
  host_device::restoreDefaultDevices();
  for (const char* call : {"cudaGetDeviceCount", "cudaSetDevice", "cudaGetDeviceProperties"}) {
    GpuProbe::forget();
    failAt(call, 1);
    EXPECT_EQ(cudaErrorUnknown, thrownBy<cudaError>([] { GPU gpu; })) << call;
    EXPECT_EQ(-1, GpuProbe::chosen());
    host_device::clearFault();
    EXPECT_EQ(0, GPU().getDeviceID());
  }
  const std::lock_guard<std::recursive_mutex> once(GPU::getMutex());
  const std::lock_guard<std::recursive_mutex> twice(GPU::getMutex());
  EXPECT_EQ(&GPU::getMutex(), &GPU::getMutex());
}

TEST_F(ContractTest, ThePoolGrowsAndNeverShrinks) {
  const struct {
    int bytes, count, freed, allocated;
    std::int64_t blockBytes;
  } steps[] = {{100, 4, 0, 4, 100}, {50, 6, 0, 2, 100}, {50, 3, 0, 0, 0}, {200, 2, 6, 6, 200}};
  for (const auto& step : steps) {
    const std::vector<Call> calls = callsOf([&] { growPool(step.bytes, step.count); });
    ASSERT_EQ(static_cast<std::size_t>(step.freed + step.allocated), calls.size());
    for (std::size_t i = 0; i < calls.size(); ++i) {
      const bool frees = static_cast<int>(i) < step.freed;
      EXPECT_STREQ(frees ? "cudaFree" : "cudaMalloc", calls[i].name);
      EXPECT_TRUE(frees || calls[i].arguments[0] == step.blockBytes);
    }
  }
}

TEST_F(ContractTest, BlocksAreTakenFromTheFrontAndReturnedAtTheBack) {
  growPool(480, 2);
  const auto wants = [](int n, int c, int h, int w) { Tensor tensor({n, c, h, w}); };
  EXPECT_TRUE(namesOf([&] { wants(2, 3, 4, 5); }).empty());
  EXPECT_EQ(0, thrownBy<TensorError>([&] { wants(2, 3, 4, 6); }));
  // Sizes whose 32-bit products would wrap around to something that fits.
  EXPECT_EQ(0, thrownBy<TensorError>([&] { wants(1 << 30, 4, 1, 1); }));
  EXPECT_EQ(0, thrownBy<TensorError>([&] { wants(INT_MAX, 1, 1, 1); }));

  Tensor first({1, 1, 1, 1});
  const float* block = first.base->data;
  Tensor second({1, 1, 1, 1});
  Tensor copy = first;
  first = LayerBase()(Layer()(copy));  // identities, which share the block
  copy = Tensor();
  EXPECT_EQ(0, thrownBy<TensorError>([&] { wants(1, 1, 1, 1); }));
  first = Tensor();
  EXPECT_EQ(block, Tensor({1, 1, 1, 1}).base->data);
  second = Tensor();  // comes back behind the other
  EXPECT_EQ(block, Tensor({1, 1, 1, 1}).base->data);
  EXPECT_NE(block, Tensor({1, 1, 1, 1}).base->data);
}

TEST_F(ContractTest, APoolThatFailedToChangeIsMadeWholeByTheNextSizing) {
  const auto usableBlocks = [] {
    std::vector<Tensor> taken;
    try {
      while (true) taken.emplace_back(int4{1, 1, 1, 1});
    } catch (TensorError) {
      return static_cast<int>(taken.size());
    }
  };
  testing::internal::CaptureStderr();
  failAt("cudaMalloc", 3);
  EXPECT_EQ(cudaErrorUnknown, thrownBy<cudaError>([] { growPool(64, 4); }));
  EXPECT_EQ(2, usableBlocks());
  growPool(64, 4);
  EXPECT_EQ(4, usableBlocks());
  failAt("cudaFree", 2);
  EXPECT_EQ(cudaErrorUnknown, thrownBy<cudaError>([] { growPool(128, 4); }));
  EXPECT_EQ(3, usableBlocks());  // the released one is never handed out again
  growPool(64, 4);
  EXPECT_EQ(4, usableBlocks());
  growPool(128, 4);
  EXPECT_EQ(4, usableBlocks());
  testing::internal::GetCapturedStderr();
}

TEST_F(ContractTest, LayersShareOneContext) {
  EXPECT_TRUE(namesOf([] { EXPECT_EQ(0, LayerBase::releaseAll()); }).empty());
  for (int cycle = 0; cycle < 2; ++cycle) {
    const std::vector<Call> calls = callsOf([] {
      const LayerBase one, two;
      LayerBase copy(one);
      copy = two;
    });
    ASSERT_EQ(2U, calls.size());
    EXPECT_STREQ("cudnnCreate", calls[0].name);
    EXPECT_STREQ("cudaMalloc", calls[1].name);
    EXPECT_EQ(134217728, calls[1].arguments[0]);
    EXPECT_EQ((Names{"cudnnDestroy", "cudaFree"}), namesOf([] { LayerBase::releaseAll(); }));
  }
}

const Names convolutionCreated =
    times(3, "cudnnCreateTensorDescriptor") + Names{"cudnnCreateFilterDescriptor",
                                                    "cudnnCreateConvolutionDescriptor",
                                                    "cudnnSetConvolution2dDescriptor",
                                                    "cudnnSetFilter4dDescriptor",
                                                    "cudaMalloc",
                                                    "cudaMemset",
                                                    "cudaMemcpy",
                                                    "cudaMalloc",
                                                    "cudaMemset",
                                                    "cudaMemcpy"};
const Names convolutionReleased =
    times(2, "cudaFree") + times(3, "cudnnDestroyTensorDescriptor") +
    Names{"cudnnDestroyFilterDescriptor", "cudnnDestroyConvolutionDescriptor"};
const Names productCreated = {"cudnnCreateTensorDescriptor",
                              "cudaMalloc",
                              "cudaMemset",
                              "cudnnSetTensor4dDescriptor",
                              "cudaMemcpy",
                              "cudaMalloc",
                              "cudaMemset",
                              "cudaMemcpy"};
const Names productReleased = {"cudaFree", "cudaFree", "cudnnDestroyTensorDescriptor"};

template <class T>
T repeat(int n, const T& part) {
  T whole;
  while (n-- > 0) whole = whole + part;
  return whole;
}

TEST_F(ContractTest, NetworksCreateReleaseAndRecreateInTheDocumentedOrder) {
  const Names created = Names{"cudnnCreate", "cudaMalloc"} +
                        Names{"cudaMalloc", "cudaMemset", "cudaMemcpy"} +
                        repeat(7, convolutionCreated) + repeat(2, productCreated) +
                        Names{"cublasCreate_v2"} + times(4, "cudaMalloc");
  const Names layersReleased =
      repeat(2, productReleased) + repeat(7, convolutionReleased) + Names{"cudaFree"};
  const Names sharedReleased =
      times(4, "cudaFree") + Names{"cublasDestroy_v2", "cudnnDestroy", "cudaFree"};
  for (int cycle = 0; cycle < 2; ++cycle) {
    std::unique_ptr<DexpressionNet> net, second;
    EXPECT_EQ(created, namesOf([&] { net = make(1); }));
    second = make(1);
    EXPECT_EQ(2, NetworkProbe::count());
    EXPECT_EQ(layersReleased, namesOf([&] { net.reset(); }));
    EXPECT_EQ(1, NetworkProbe::count());
    EXPECT_EQ(layersReleased + sharedReleased, namesOf([&] { second.reset(); }));
    EXPECT_EQ(0U, host_device::live().handles);
  }
}

TEST_F(ContractTest, ConvolutionsAreConfiguredOncePerShape) {
  const auto net = make(2);
  const auto configured = [&](int batch) {
    const Names names = namesOf([&] { forward(*net, batch); });
    // The images are the host's own: one allocation, one release.
    EXPECT_EQ(1, count(names, "cudaMalloc"));
    EXPECT_EQ(1, count(names, "cudaFree"));
    EXPECT_EQ(7, count(names, "cudnnConvolutionBiasActivationForward"));
    EXPECT_EQ(batch, count(names, "cudaLaunchKernel"));
    EXPECT_EQ(batch == 1 ? 2 : 0, count(names, "cublasSgemv_v2"));
    EXPECT_EQ(batch == 1 ? 0 : 2, count(names, "cublasSgemm_v2"));
    EXPECT_EQ(batch * 2, count(names, "cudnnAddTensor"));
    EXPECT_EQ(count(names, "cudnnGetConvolutionForwardAlgorithm"),
              count(names, "cudnnGetConvolution2dForwardOutputDim"));
    return count(names, "cudnnGetConvolutionForwardAlgorithm");
  };
  EXPECT_EQ(7, configured(1));
  EXPECT_EQ(0, configured(1));
  EXPECT_EQ(7, configured(2));
  EXPECT_EQ(0, configured(2));
  EXPECT_EQ(7, configured(1));
}

TEST_F(ContractTest, ForwardTakesFourBlocksAndNoMore) {
  const auto net = make(1);
  const std::vector<float> expected = forward(*net);
  {
    const Tensor taken({1, 1, 1, 1});
    EXPECT_EQ(0, thrownBy<TensorError>([&] { forward(*net); }));
  }
  EXPECT_EQ(expected, forward(*net));
}

TEST_F(ContractTest, InputConversionCoversTheImageWithBlocksOf32) {
  growPool(4 * 33 * 65, 2);
  TransformNHWC2NCHW layer("inMean");
  const Tensor in({1, 65, 33, 1});
  const std::vector<Call> calls = callsOf([&] { layer(in); });
  ASSERT_EQ(1U, calls.size());
  EXPECT_EQ((std::vector<std::int64_t>{2, 3, 1, 32, 32, 1}), calls[0].arguments);
}

TEST_F(ContractTest, ACopyTakesEverythingOver) {
  auto source = make(2);
  const std::vector<float> expected = forward(*source, 2);
  auto copy = std::make_unique<DexpressionNet>(*source);
  EXPECT_EQ(1, NetworkProbe::count());
  EXPECT_EQ(5, copy->getOutputDim());
  EXPECT_EQ(expected, forward(*copy, 2));
  EXPECT_EQ(1, thrownBy<NetworkError>([&] { forward(*source); }));
  const auto copyOfEmpty = std::make_unique<DexpressionNet>(*source);
  EXPECT_TRUE(namesOf([&] { source.reset(); }).empty());
  EXPECT_EQ(1, NetworkProbe::count());
  EXPECT_EQ(expected, forward(*copy, 2));
}

TEST_F(ContractTest, BadArgumentsOfForwardHaveTheirOwnAnswers) {
  const auto net = make(2);
  const DeviceArray<std::uint8_t> images(seededImages(dexpressionNet, 3));
  std::vector<std::uint8_t> hostImages = seededImages(dexpressionNet, 1);
  std::vector<float> out(10);
  const DeviceArray<float> deviceOut(out);
  const DeviceArray<std::uint8_t> oneImage(hostImages);
  const auto run = [&](void* in, int batch, float* result) {
    return [&net, in, batch, result] { net->Forward(in, batch, result, nullptr); };
  };
  testing::internal::CaptureStderr();
  EXPECT_EQ(CUDNN_STATUS_BAD_PARAM, thrownBy<cudnnStatus_t>(run(images.data(), 0, out.data())));
  for (const int batch : {-1, INT_MIN}) {
    EXPECT_EQ(1, thrownBy<cudaError>(run(images.data(), batch, out.data()))) << batch;
  }
  for (const int batch : {3, 1 << 20, 1 << 28, INT_MAX}) {
    EXPECT_EQ(0, thrownBy<TensorError>(run(images.data(), batch, out.data()))) << batch;
  }
  EXPECT_EQ(1, thrownBy<cudaError>(run(nullptr, 1, out.data())));
  EXPECT_EQ(1, thrownBy<cudaError>(run(images.data(), 1, nullptr)));
  EXPECT_EQ(1, thrownBy<cudaError>(run(hostImages.data(), 1, out.data())));
  EXPECT_EQ(1, thrownBy<cudaError>(run(oneImage.data(), 2, out.data())));
  EXPECT_EQ(1, thrownBy<cudaError>(run(images.data(), 1, deviceOut.data())));
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(8, std::count(lines.begin(), lines.end(), '\n')) << lines;
  forward(*net, 2);

  EXPECT_EQ(0, thrownBy<TensorError>([&] { make(630); }));  // 630 × 3411968 bytes exceed an int
  EXPECT_EQ(1, NetworkProbe::count());
}

}  // namespace
}  // namespace facezoo::test
