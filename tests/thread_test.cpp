// Threads that share networks by the rules of docs/threads.md.
#include "calls.h"
#include "layer_factory.h"
#include "layers/concat.h"
#include "layers/eltwise.h"
#include "layers/l2_norm.h"
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"

#include <omp.h>

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>

/// LLVM's OpenMP runtime does not free the records of a team that is larger than the machine.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:libomp\n";
}

namespace facezoo::test {
namespace {

using Lock = std::lock_guard<std::recursive_mutex>;

/// A network that all threads call, and the results that they must get for each batch.
struct SharedNetwork {
  const NetworkKind& kind;
  const int maxBatch;
  const unsigned seed = 1;
  std::unique_ptr<Network> network{};
  std::vector<std::vector<float>> expected{};

  void renew() {
    network.reset();
    network = kind.make(maxBatch, seed);
  }
};

/// What each of several threads does: it calls the networks in turn, and replaces one now and then.
/// Only this thread uses its images and results, which therefore need no lock.
/// @return the number of calls with a wrong result
int callInTurn(std::vector<SharedNetwork>& networks, int device, int thread, int calls) {
  CheckCuda(cudaSetDevice(device));
  int wrong = 0;
  for (int i = 0; i < calls; ++i) {
    SharedNetwork& shared = networks[(thread + i) % networks.size()];
    const int batch = 1 + i % shared.maxBatch;
    ForwardCall forward{shared.kind.table, shared.maxBatch};
    {
      const Lock lock(GPU::getMutex());
      if ((thread * 7 + i) % 37 == 0) shared.renew();
      forward(*shared.network, batch);
    }
    wrong += forward.take() != shared.expected[batch - 1];
  }
  return wrong;
}

struct ThreadTest : ContractTest {
  static void callFromEightThreads(std::vector<SharedNetwork> networks, int calls) {
    const int device = GPU().getDeviceID();
    for (SharedNetwork& shared : networks) {
      shared.renew();
      ForwardCall forward{shared.kind.table, shared.maxBatch};
      for (int batch = 1; batch <= shared.maxBatch; ++batch) {
        shared.expected.push_back(forward.results(*shared.network, batch));
      }
    }
    std::future<int> threads[8];
    for (int t = 0; t < 8; ++t) {
      threads[t] = std::async(std::launch::async, callInTurn, std::ref(networks), device, t, calls);
    }
    for (std::future<int>& thread : threads) EXPECT_EQ(0, thread.get());
  }
};

TEST_F(ThreadTest, GetFromSmallNetworksWhatOneThreadGets) {
  std::vector<SharedNetwork> networks;
  for (const int i : {1, 2, 3, 4}) networks.push_back({smallKind, i, 100U * i});
  callFromEightThreads(std::move(networks), 1000);
}

TEST_F(ThreadTest, GetFromLargeNetworksWhatOneThreadGets) {
  std::vector<SharedNetwork> networks;
  for (const int i : {0, 2, 4, 7}) networks.push_back({networkKinds[i], 2});
  callFromEightThreads(std::move(networks), numberFrom("FACEZOO_THREAD_CALLS", 4));
}

#if FACEZOO_SIMULATED

/// A layer that spreads its work over threads, and the shape of its input.
struct LayerCase {
  const char* what;
  int4 shape;
  std::function<Tensor(const Tensor&)> run;
};

/// A layer with seeded weights.
LayerCase withWeights(const LayerRow& row, int4 shape) {
  Document document;
  forEachWeight(std::array<LayerRow, 1>{row}, "",
                [&](const std::string& name, std::size_t elements, auto&&...) {
                  document.add(name, seededValues(elements, 1, 0.5, 1));
                });
  const std::shared_ptr<LayerBase> layer(createLayer(row, "", document.root()));
  return {row.name, shape, [layer](const Tensor& x) { return (*layer)(x); }};
}

// The threads that share a call must not show in its results.
TEST_F(ThreadTest, TogetherComputeWhatOneComputes) {
  preparePool(1 << 20, 8);
  const LayerCase cases[] = {
      {"small maxima", {1, 4, 9, 9}, [](auto& x) { return MaxPooling()(x, 3, 2, 0); }},
      {"small averages", {1, 4, 9, 9}, [](auto& x) { return AveragePooling()(x, 3, 1, 1); }},
      {"maxima", {1, 9, 50, 50}, [](auto& x) { return MaxPooling()(x, 3, 2, 0); }},
      {"normalization across channels",
       {2, 8, 40, 40},
       [](auto& x) { return LocalResponseNormalization()(x, 5, 1e-4F, 0.75F, 1); }},
      {"rectified", {1, 8, 60, 60}, [](auto& x) { return Relu()(x); }},
      {"softmax", {1, 8, 60, 60}, [](auto& x) { return Softmax()(x); }},
      {"larger halves", {1, 8, 60, 60}, [](auto& x) { return SliceEltwiseMax()(x); }},
      {"sum", {1, 8, 60, 60}, [](auto& x) { return EltwiseSum()(x, x); }},
      {"joined",
       {2, 8, 60, 60},
       [](auto& x) {
         return Concat()({x, x});
       }},
      {"norm", {9, 512, 6, 6}, [](auto& x) { return L2Norm()(x); }},
      withWeights(batchNormalization("bn", 8), {1, 8, 60, 60}),
      withWeights(innerProduct("fc", 600, 70, withBias), {3, 600, 1, 1}),
      withWeights(fusedConvolution("panels", 9, 17, 1, 1, noPadding), {1, 9, 33, 33}),
      withWeights(fusedConvolution("strided panels", 3, 17, 7, 2, samePadding), {2, 3, 33, 33}),
      withWeights(fusedConvolution("shared tiles", 9, 17, 3, 1, samePadding), {1, 9, 33, 33}),
      withWeights(fusedConvolution("tiles of each", 9, 17, 5, 1, samePadding), {4, 9, 60, 60}),
      withWeights(convolution("plain", 9, 17, 3, 1, samePadding, withBias), {1, 9, 33, 33})};
  for (const auto& [what, shape, run] : cases) {
    const std::vector<float> values =
        seededValues(std::size_t{1} * shape.x * shape.y * shape.z * shape.w, 2);
    const auto result = [&, &shape = shape, &run = run](int threads) {
      host_device::useThreads(threads);
      return download(run(upload(values, shape)));
    };
    EXPECT_EQ(result(1), result(0)) << what;
  }
}

std::size_t usedBytes(int device) {
  std::size_t free = 0, total = 0;
  CheckCuda(cudaSetDevice(device));
  CheckCuda(cudaMemGetInfo(&free, &total));
  return total - free;
}

TEST_F(ThreadTest, WorkOnTheDeviceThatTheySelectAndElseOnTheFirst) {
  host_device::setDevices(
      {{"too old", 3, 5, std::size_t{8} << 30}, {"fits", 6, 1, std::size_t{4} << 30}});
  const int chosenBefore = std::exchange(GpuProbe::chosen(), -1);
  GPU gpu;
  EXPECT_EQ(1, gpu.getDeviceID());
  for (const int selected : {0, 1}) {
    SCOPED_TRACE(selected);
    std::unique_ptr<Network> network;
    std::thread([&] {
      if (selected != 0) CheckCuda(cudaSetDevice(gpu.getDeviceID()));
      const Lock lock(GPU::getMutex());
      network = smallKind.make(1);
    }).join();
    EXPECT_LT(std::size_t{128} << 20, usedBytes(selected));
    EXPECT_EQ(0U, usedBytes(1 - selected));
    network.reset();
    EXPECT_EQ(0U, usedBytes(selected));
  }
  GpuProbe::chosen() = chosenBefore;
  host_device::restoreDefaultDevices();
}

#ifndef FACEZOO_SANITIZED  // sanitizers add to every function's stack
/// How many bytes of stack `action` takes, measured on a thread of its own.
std::size_t stackOf(const std::function<void()>& action) {
  constexpr unsigned char untouched = 0xA5;
  std::vector<unsigned char> stack(std::size_t{1} << 20, untouched);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, stack.data(), stack.size());
  const auto start = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  pthread_t thread;
  EXPECT_EQ(0, pthread_create(&thread, &attributes, start,
                              const_cast<void*>(static_cast<const void*>(&action))));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  return stack.end() - std::find_if(stack.begin(), stack.end(),
                                    [](unsigned char byte) { return byte != untouched; });
}

TEST_F(ThreadTest, NeedLittleStack) {
  for (const NetworkKind& kind : networkKinds) {
    ForwardCall call{kind.table, 2};
    const auto network = kind.make(2);
    const std::size_t ofAnyThread = stackOf([] {});
    // The first call sets the layers up, the second does not.
    for (const int batch : {1, 1, 2}) {
      const std::size_t used = stackOf([&] { call(*network, batch); });
      EXPECT_GT(std::size_t{32} << 10, used - ofAnyThread)
          << kind.table.name << ", batch " << batch;
    }
  }
}
#endif

TEST_F(ThreadTest, AreNotWaitedForAfterAFork) {
  const auto network = networkKinds[0].make(1);
  ForwardCall call{networkKinds[0].table, 1};
  const std::vector<float> expected = call.results(*network, 1);
  EXPECT_EQ(0, exitCodeInChild([&] {
              alarm(30);
              testing::internal::CaptureStderr();
              const cudaError failing[] = {thrownBy<cudaError>([&] { call(*network, 1); }),
                                           thrownBy<cudaError>([] { smallKind.make(1); })};
              for (const cudaError status : failing)
                EXPECT_EQ(cudaErrorInitializationError, status);
              const std::string lines = testing::internal::GetCapturedStderr();
              EXPECT_EQ(2, std::count(lines.begin(), lines.end(), '\n')) << lines;
              return HasFailure() ? 1 : 0;
            }));
  EXPECT_EQ(expected, call.results(*network, 1));
  // A child that may go on needs threads of its own.
  host_device::keepAfterFork(true);
  EXPECT_EQ(0, exitCodeInChild([&] {
              alarm(30);
              return call.results(*network, 1) == expected ? 0 : 1;
            }));
  host_device::keepAfterFork(false);
}

/// Whether a child process can use the library although its parent has had a team of OpenMP's
/// threads. The parent must not have used the library.
bool forksBesideATeam() {
  std::atomic<int> team{0};
#pragma omp parallel num_threads(2)
  ++team;
  seededFile(networkKinds[0].table);
  const int code = exitCodeInChild([] {
    alarm(30);
    ForwardCall{networkKinds[0].table, 1}(*networkKinds[0].make(1), 1);
    return testing::Test::HasFailure() ? 1 : 0;
  });
  return code == 0 && team == 2;
}

TEST(ForkDeathTest, ThreadsThatAChildHasNotAreNotWaitedFor) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";  // a fresh process
  EXPECT_EXIT(std::exit(forksBesideATeam() ? 0 : 1), testing::ExitedWithCode(0), "");
}

#endif

}  // namespace
}  // namespace facezoo::test
