// Who calls what, when and how often; what is alive in between. Seen by the platform's observer.
#include "GPU.h"
#include "layers/eltwise.h"
#include "layers/l2_norm.h"
#include "layers/transform.h"
#include "seeded_network.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <iostream>
#include <regex>

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

Names times(int n, const Names& part) {
  Names whole;
  while (n-- > 0) whole = whole + part;
  return whole;
}

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

/// Blocks of at least `floats` floats that the pool has to give.
int freeBlocks(int floats) {
  std::vector<Tensor> taken;
  try {
    while (true) taken.emplace_back(int4{1, 1, 1, floats});
  } catch (TensorError) {
    return static_cast<int>(taken.size());
  }
}

void failAt(const char* name, std::size_t at) { host_device::setFault({at, name}); }

class ContractTest : public DeviceTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(0, NetworkProbe::count());
    DeviceTest::TearDown();
  }
};

TEST_F(ContractTest, AFailingStatusIsClearedThenPrintedThenThrown) {
  testing::internal::CaptureStderr();
  const Names calls = namesOf([] {
    CheckCuda(cudaSuccess);
    CheckCudnn(CUDNN_STATUS_SUCCESS);
    CheckCublas(CUBLAS_STATUS_SUCCESS);
    EXPECT_EQ(2, thrownBy<cudaError>([] { CheckCuda(cudaErrorMemoryAllocation); }));
    EXPECT_EQ(3, thrownBy<cudnnStatus_t>([] { CheckCudnn(CUDNN_STATUS_BAD_PARAM); }));
    EXPECT_EQ(13, thrownBy<cublasStatus_t>([] { CheckCublas(CUBLAS_STATUS_EXECUTION_FAILED); }));
  });
  EXPECT_EQ((Names{"cudaGetLastError", "cudaGetErrorString", "cudaGetLastError",
                   "cudnnGetErrorString", "cudaGetLastError"}),
            calls);
  const std::string place = " at tests/contract_test.cpp line \\d+\n";
  const std::regex lines("\\[Error\\] out of memory \\(cuda error code: 2\\)" + place +
                         "\\[Error\\] CUDNN_STATUS_BAD_PARAM \\(cudnn error code: 3\\)" + place +
                         "\\[Error\\] \\(cublas error code: 13\\)" + place);
  EXPECT_TRUE(std::regex_match(testing::internal::GetCapturedStderr(), lines));
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
      EXPECT_TRUE(namesOf([] { GPU() = GPU(); }).empty());
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
    int bytes, count, freed, allocated, blocks, floats;
  } steps[] = {
      {100, 4, 0, 4, 4, 25}, {50, 6, 0, 2, 6, 25}, {50, 3, 0, 0, 6, 25}, {200, 2, 6, 6, 6, 50}};
  for (const auto& step : steps) {
    EXPECT_EQ(times(step.freed, {"cudaFree"}) + times(step.allocated, {"cudaMalloc"}),
              namesOf([&] { growPool(step.bytes, step.count); }));
    EXPECT_EQ(step.blocks, freeBlocks(step.floats));
    EXPECT_EQ(0, freeBlocks(step.floats + 1));
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
  testing::internal::CaptureStderr();
  failAt("cudaMalloc", 3);
  EXPECT_EQ(cudaErrorUnknown, thrownBy<cudaError>([] { growPool(64, 4); }));
  EXPECT_EQ(2, freeBlocks(1));
  growPool(64, 4);
  EXPECT_EQ(4, freeBlocks(1));
  failAt("cudaFree", 2);
  EXPECT_EQ(cudaErrorUnknown, thrownBy<cudaError>([] { growPool(128, 4); }));
  EXPECT_EQ(3, freeBlocks(1));  // the released one is never handed out again
  growPool(64, 4);
  EXPECT_EQ(4, freeBlocks(1));
  growPool(128, 4);
  EXPECT_EQ(4, freeBlocks(1));
  testing::internal::GetCapturedStderr();
}

TEST_F(ContractTest, LayersShareOneContext) {
  EXPECT_TRUE(namesOf([] { EXPECT_EQ(0, LayerBase::releaseAll()); }).empty());
  for (int cycle = 0; cycle < 2; ++cycle) {
    const std::vector<Call> calls = callsOf([] { const LayerBase one, two; });
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ(134217728, calls[1].arguments[0]);
    EXPECT_EQ((Names{"cudnnDestroy", "cudaFree"}), namesOf([] { LayerBase::releaseAll(); }));
  }
}

/// The layers of a network that make calls when they are created, those inside blocks included, in
/// that order; each with the first of its weights' names.
std::vector<std::pair<std::string, LayerRow>> layersOf(const NetworkTable& table) {
  std::vector<std::pair<std::string, LayerRow>> layers;
  const LayerRow& first = *table.layers.begin();
  if (first.kind == LayerKind::channelMean) layers.emplace_back(first.name, first);
  forEachWeight(table.layers, "",
                [&](const std::string& name, std::size_t, const LayerRow& row, WeightRole role) {
                  if (role == WeightRole::filter || role == WeightRole::scale || row.width > 0)
                    layers.emplace_back(name, row);
                });
  return layers;
}

/// Whether there is a second array: a bias, or what a projection subtracts.
bool hasVector(const LayerRow& row) { return row.hasBias || row.kind == LayerKind::projection; }

/// The calls that create a layer, and those that release it.
std::pair<Names, Names> callsFor(const LayerRow& row) {
  const Names read = {"cudaMalloc", "cudaMemcpy"};
  const Names readZeroed = {"cudaMalloc", "cudaMemset", "cudaMemcpy"};
  const Names vector = times(hasVector(row) ? 1 : 0, readZeroed);
  const Names freed = times(hasVector(row) ? 2 : 1, {"cudaFree"});
  const Names create = {"cudnnCreateTensorDescriptor"}, destroy = {"cudnnDestroyTensorDescriptor"};
  switch (row.kind) {
    case LayerKind::meanImage:
      return {readZeroed, freed};
    case LayerKind::channelMean:
      return {read, freed};
    case LayerKind::batchNormalization:
      return {times(3, create) + times(4, read), times(4, freed) + times(3, destroy)};
    case LayerKind::innerProduct:
    case LayerKind::projection:
      return {create + Names{"cudaMalloc", "cudaMemset", "cudnnSetTensor4dDescriptor"} +
                  Names{"cudaMemcpy"} + vector,
              freed + destroy};
    default:
      return {times(3, create) +
                  Names{"cudnnCreateFilterDescriptor", "cudnnCreateConvolutionDescriptor",
                        "cudnnSetConvolution2dDescriptor", "cudnnSetFilter4dDescriptor"} +
                  readZeroed + vector,
              freed + times(3, destroy) +
                  Names{"cudnnDestroyFilterDescriptor", "cudnnDestroyConvolutionDescriptor"}};
  }
}

struct NetworkCalls : ContractTest, testing::WithParamInterface<NetworkKind> {};

TEST_P(NetworkCalls, AndBlocksAreTheDocumentedOnes) {
  const NetworkTable& table = GetParam().table;
  const int blocks = GetParam().blocks, largest = GetParam().largestTensor;
  auto layers = layersOf(table);
  Names created, released;
  std::map<std::pair<LayerKind, bool>, std::ptrdiff_t> run;
  for (const auto& [name, row] : layers) {
    created = created + callsFor(row).first;
    if (name.rfind("loss1/", 0) != 0) ++run[{row.kind, hasVector(row)}];  // else never run
  }
  std::unique_ptr<Network> net;
  EXPECT_EQ((Names{"cudnnCreate", "cudaMalloc"} + created + Names{"cublasCreate_v2"} +
             times(table.bufferCount, {"cudaMalloc"})),
            namesOf([&] { net.reset(GetParam().construct(seededFile(table), 2)); }));

  const std::ptrdiff_t fused = run[{LayerKind::fusedConvolution, true}];
  const std::ptrdiff_t biased = run[{LayerKind::convolution, true}];
  const std::ptrdiff_t plain = run[{LayerKind::convolution, false}] + biased;
  const std::ptrdiff_t normalized = run[{LayerKind::batchNormalization, false}];
  const std::ptrdiff_t vectors =
      run[{LayerKind::innerProduct, true}] + run[{LayerKind::projection, true}];
  const std::ptrdiff_t products = run[{LayerKind::innerProduct, false}] + vectors;
  ForwardCall forward{table, 2};
  int last = 0;
  for (const int batch : {1, 1, 2, 2, 1}) {
    const Names names = namesOf([&] { forward(*net, batch); });
    const int changed = batch == std::exchange(last, batch) ? 0 : 1;
    const std::pair<const char*, std::ptrdiff_t> counts[] = {
        {"cudaMalloc", 0},
        {"cudaFree", 0},
        {"cudnnConvolutionBiasActivationForward", fused},
        {"cudnnConvolutionForward", plain},
        {"cudnnGetConvolution2dForwardOutputDim", changed * (fused + plain)},
        {"cudnnGetConvolutionForwardAlgorithm", changed * (fused + plain)},
        {"cudnnBatchNormalizationForwardInference", normalized},
        {"cudnnDeriveBNTensorDescriptor", changed * normalized},
        {"cublasSgemv_v2", batch == 1 ? products : 0},
        {"cublasSgemm_v2", batch == 1 ? 0 : products},
        {"cudnnAddTensor", biased + batch * vectors}};
    for (const auto& [name, expected] : counts) {
      EXPECT_EQ(expected, count(names, name)) << name << ", batch " << batch;
    }
  }

  // A shape that was configured by halves is forgotten.
  const std::vector<float> one = forward.results(*net, 1);
  failAt("cudnnSetTensor4dDescriptor", 2);
  EXPECT_NE(0, thrownBy<cudnnStatus_t>([&] { forward(*net, 2); }));
  EXPECT_EQ(one, forward.results(*net, 1));

  const std::vector<float> expected = forward.results(*net, 2);
  for (const auto& [bytes, missing] : {std::pair{0, 0}, {0, 1}, {4, 0}, {0, 0}}) {
    freePool();
    growPool(2 * largest - bytes, blocks - missing);
    if (bytes + missing > 0) {
      EXPECT_EQ(0, thrownBy<TensorError>([&] { forward(*net, 2); }));
    } else {
      EXPECT_EQ(expected, forward.results(*net, 2));
    }
    EXPECT_EQ(blocks - missing, freeBlocks(1));
  }
  EXPECT_LE(largest, table.perImageBytes);
  std::cout << "measured " << table.name << ": " << blocks << " of " << table.bufferCount
            << " pool blocks\n";
  growPool(1, table.bufferCount);

  if (&table == &googLeNetBN)  // its branches are declared convolutions first
    std::rotate(layers.end() - 7, layers.end() - 5, layers.end() - 3);
  for (const auto& [name, row] : layers) released = callsFor(row).second + released;
  EXPECT_EQ((released + times(table.bufferCount, {"cudaFree"}) +
             Names{"cublasDestroy_v2", "cudnnDestroy", "cudaFree"}),
            namesOf([&] { net.reset(); }));
}

INSTANTIATE_TEST_SUITE_P(, NetworkCalls, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

TEST_F(ContractTest, NetworksShareWhatTheLastOneReleases) {
  struct Member {
    const NetworkKind& kind;
    ForwardCall forward{kind.table, 1};
    std::unique_ptr<Network> net{kind.construct(seededFile(kind.table), 1)};
    std::vector<float> expected = forward.results(*net, 1);
  };
  // The first has the most blocks, the last the largest.
  Member members[] = {{networkKinds[4]}, {networkKinds[0]}, {networkKinds[7]}};
  for (Member& member : members) member.net.reset();
  host_device::poisonFreshMemory(false);  // takes too long
  const std::size_t idle = host_device::live().allocations;
  int order[] = {0, 1, 2}, end[] = {0, 1, 2};
  do do {
      SCOPED_TRACE(testing::PrintToString(order) + ", " + testing::PrintToString(end));
      int blocks = 0, bytes = 0;
      for (int i : order) {
        const NetworkTable& table = members[i].kind.table;
        members[i].net.reset(members[i].kind.construct(seededFile(table), 1));
        blocks = std::max(blocks, table.bufferCount);
        bytes = std::max(bytes, table.perImageBytes);
      }
      for (int alive = 3; alive > 0; --alive) {
        EXPECT_EQ(alive, NetworkProbe::count());
        EXPECT_EQ(2U, host_device::live().handles);
        EXPECT_EQ(blocks, freeBlocks(bytes / 4));
        EXPECT_EQ(0, freeBlocks(bytes / 4 + 1));
        for (Member& member : members) {
          if (!member.net || (alive > 1 && !std::is_sorted(end, end + 3))) continue;
          EXPECT_EQ(member.expected, member.forward.results(*member.net, 1));
        }
        members[end[3 - alive]].net.reset();
      }
      EXPECT_EQ(0U, host_device::live().handles);
      EXPECT_EQ(idle, host_device::live().allocations);
    } while (std::next_permutation(end, end + 3));
  while (std::next_permutation(order, order + 3));
}

TEST_F(ContractTest, LaunchesCoverTheirDataWithTheDocumentedBlocks) {
  const LayerBase context;
  growPool(1 << 15, 3);
  const auto of = [](int n, int c, int h, int w) { return Tensor({n, c, h, w}); };
  // Grid and block.
  const std::pair<std::function<void()>, std::vector<std::int64_t>> launches[] = {
      {[&] { TransformNHWC2NCHW("inMean")(of(1, 65, 33, 1)); }, {2, 3, 1, 32, 32, 1}},
      {[&] { SliceEltwiseMax()(of(3, 2, 1, 1024)); }, {1, 3, 1, 1024, 1, 1}},
      {[&] { SliceEltwiseMax()(of(2, 2, 1, 1025)); }, {2, 2, 1, 1024, 1, 1}},
      {[&] { EltwiseSum()(of(2, 1, 1, 1025), of(2, 1, 1, 1025)); }, {2, 2, 1, 1024, 1, 1}},
      {[&] { L2Norm()(of(128, 3, 1, 1)); }, {1, 1, 1, 128, 1, 1}},
      {[&] { L2Norm()(of(129, 3, 1, 1)); }, {2, 1, 1, 128, 1, 1}}};
  for (const auto& [call, geometry] : launches) {
    const std::vector<Call> calls = callsOf(call);
    ASSERT_EQ(1U, calls.size());
    EXPECT_EQ(geometry, calls[0].arguments);
  }
}

TEST_F(ContractTest, ACopyTakesEverythingOver) {
  auto source = std::make_unique<DexpressionNet>(seededFile(dexpressionNet), 2, "");
  ForwardCall forward{dexpressionNet, 2};
  const std::vector<float> expected = forward.results(*source, 2);
  auto copy = std::make_unique<DexpressionNet>(*source);
  EXPECT_EQ(1, NetworkProbe::count());
  EXPECT_EQ(5, copy->getOutputDim());
  EXPECT_EQ(expected, forward.results(*copy, 2));
  EXPECT_EQ(1, thrownBy<NetworkError>([&] { forward(*source, 2); }));
  const auto copyOfEmpty = std::make_unique<DexpressionNet>(*source);
  EXPECT_TRUE(namesOf([&] { source.reset(); }).empty());
  EXPECT_EQ(1, NetworkProbe::count());
  EXPECT_EQ(expected, forward.results(*copy, 2));
}

TEST_F(ContractTest, BadArgumentsOfForwardHaveTheirOwnAnswers) {
  const auto net = std::make_unique<DexpressionNet>(seededFile(dexpressionNet), 2, "");
  std::vector<std::uint8_t> hostImages(224 * 224);
  const DeviceArray<std::uint8_t> images(std::vector<std::uint8_t>(3 * hostImages.size()));
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
  run(images.data(), 2, out.data())();

  // 630 × 3411968 bytes exceed an int.
  EXPECT_EQ(0, thrownBy<TensorError>(
                   [] { const DexpressionNet huge(seededFile(dexpressionNet), 630, ""); }));
  EXPECT_EQ(1, NetworkProbe::count());
}

}  // namespace
}  // namespace facezoo::test
