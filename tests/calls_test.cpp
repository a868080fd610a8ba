// Which calls to the platform the library makes, in which order and how often.
#include "calls.h"
#include "facezoo/listener.h"
#include "layers/eltwise.h"
#include "layers/l2_norm.h"
#include "layers/transform.h"

#include <algorithm>
#include <fstream>
#include <functional>

namespace facezoo::test {
namespace {

using host_device::Call;

std::ptrdiff_t count(const Names& names, const std::string& name) {
  return std::count(names.begin(), names.end(), name);
}

void failAt(const char* name, std::size_t at) { host_device::setFault({at, name}); }

using CallsTest = ContractTest;

TEST_F(CallsTest, TheFirstSuitableDeviceIsChosen) {
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
    GpuProbe::chosen() = -1;
    host_device::setDevices(c.devices);
    testing::internal::CaptureStderr();
    if (c.chosen >= 0) {
      const Names calls = namesOf([] { GPU gpu; });
      EXPECT_EQ(c.chosen + 1, count(calls, "cudaGetDeviceProperties"));
      EXPECT_TRUE(namesOf([] { GPU() = GPU(); }).empty());
      EXPECT_EQ("", testing::internal::GetCapturedStderr());
    } else {
      const auto choose = [] { EXPECT_EQ(0, thrownBy<GPUError>([] { GPU gpu; })); };
      choose();
      const Listener silent;
      choose();
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
    GpuProbe::chosen() = -1;
    failAt(call, 1);
    EXPECT_EQ(cudaErrorUnknown, thrownBy<cudaError>([] { GPU gpu; })) << call;
    EXPECT_EQ(-1, GpuProbe::chosen());
    host_device::clearFault();
    EXPECT_EQ(0, GPU().getDeviceID());
  }
}

TEST_F(CallsTest, APoolThatFailedToChangeIsMadeWholeByTheNextSizing) {
  const Listener silent;
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
}

TEST_F(CallsTest, LayersShareOneContext) {
  EXPECT_TRUE(namesOf([] { EXPECT_EQ(0, LayerBase::releaseAll()); }).empty());
  for (int cycle = 0; cycle < 2; ++cycle) {
    const std::vector<Call> calls = callsOf([] { const LayerBase one, two; });
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ(134217728, calls[1].arguments[0]);
    EXPECT_EQ((Names{"cudnnDestroy", "cudaFree"}), namesOf([] { LayerBase::releaseAll(); }));
  }
  const LayerBase last;
  failAt("cudaFree", 1);
  EXPECT_EQ(cudaErrorUnknown, thrownBy<cudaError>(LayerBase::releaseAll));
  host_device::clearFault();
  EXPECT_EQ((Names{"cudaFree"}), namesOf([] { LayerBase::releaseAll(); }));
}

TEST_F(CallsTest, WhatAFailedConstructionLeavesIsOneContextAtMost) {
  const TemporaryFile empty, noMap;
  std::ofstream(empty.path).close();
  std::ofstream(noMap.path) << "an integer";
  const auto alive = [] {
    const host_device::Live now = host_device::live();
    return std::pair(now.handles, now.allocations);
  };
  const auto construct = [&](const std::string& path) {
    EXPECT_ANY_THROW(SmallNetwork(path.c_str(), 1, ""));
    return alive();
  };
  const auto nothing = alive();
  const std::pair handle(nothing.first + 1, nothing.second),
      context(handle.first, handle.second + 1);
  const Listener silent;
  // A constructor that throws before its network is counted leaves the context: only the end of
  // the last counted network releases it.
  for (const std::string& path : {std::string("/nonexistent"), empty.path}) {
    EXPECT_EQ(context, construct(path));
    EXPECT_EQ(context, construct(path));
    LayerBase::releaseAll();
    EXPECT_EQ(nothing, alive());
  }
  for (int attempt = 0; attempt < 3; ++attempt) {
    failAt("cudaMalloc", 1);
    EXPECT_EQ(handle, construct(noMap.path));
  }
  host_device::clearFault();
  EXPECT_EQ((Names{"cudnnDestroy", "cudnnCreate", "cudaMalloc"}), namesOf([] { LayerBase(); }));
  EXPECT_EQ(nothing, construct(noMap.path));
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

TEST_P(NetworkCalls, AreTheDocumentedOnes) {
  const NetworkTable& table = GetParam().table;
  auto layers = layersOf(table);
  Names created, released;
  std::map<std::pair<LayerKind, bool>, std::ptrdiff_t> run;
  for (const auto& [name, row] : layers) {
    created = created + callsFor(row).first;
    if (name.rfind("loss1/", 0) == 0) continue;  // this branch has weights, but is never computed
    ++run[{row.kind, hasVector(row)}];
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

  // Without the shared context, `Forward` creates it before it makes any other call.
  LayerBase::releaseAll();
  Names names = namesOf([&] { forward(*net, 1); });
  names.resize(3);
  EXPECT_EQ((Names{"cudnnCreate", "cudaMalloc", "cudaMemcpy"}), names);

  // A call that fails while a layer adapts to a shape leaves nothing of that shape behind.
  const std::vector<float> one = forward.results(*net, 1);
  failAt("cudnnSetTensor4dDescriptor", 2);
  EXPECT_NE(0, thrownBy<cudnnStatus_t>([&] { forward(*net, 2); }));
  EXPECT_EQ(one, forward.results(*net, 1));

  // This class declares the convolutions of its two branches before their inner products, and
  // members are destroyed in the reverse order of their declaration.
  if (&table == &googLeNetBN) std::rotate(layers.end() - 7, layers.end() - 5, layers.end() - 3);
  for (const auto& [name, row] : layers) released = callsFor(row).second + released;
  EXPECT_EQ((released + times(table.bufferCount, {"cudaFree"}) +
             Names{"cublasDestroy_v2", "cudnnDestroy", "cudaFree"}),
            namesOf([&] { net.reset(); }));
}

INSTANTIATE_TEST_SUITE_P(, NetworkCalls, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

TEST_F(CallsTest, LaunchesCoverTheirDataWithTheDocumentedBlocks) {
  const LayerBase context;
  growPool(1 << 15, 3);
  const auto of = [](int n, int c, int h, int w) { return Tensor({n, c, h, w}); };
  Document none;
  // Grid and block.
  const std::pair<std::function<void()>, std::vector<std::int64_t>> launches[] = {
      {[&] { TransformNHWC2NCHW(noMean(1), "", none.root())(of(1, 65, 33, 1)); },
       {2, 3, 1, 32, 32, 1}},
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

}  // namespace
}  // namespace facezoo::test
