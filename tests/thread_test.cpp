// Threads that share networks by the rules of docs/threads.md.
#include "GPU.h"
#include "calls.h"

#include <future>
#include <mutex>
#include <thread>

namespace facezoo::test {
namespace {

using Lock = std::lock_guard<std::recursive_mutex>;

/// A network that all threads call, and what they must get for each batch.
struct Served {
  const NetworkKind& kind;
  const int maxBatch;
  const unsigned seed = 1;
  std::unique_ptr<Network> network{};
  std::vector<std::vector<float>> expected{};

  void renew() {
    network.reset();
    network.reset(kind.construct(seededFile(kind.table, seed), maxBatch));
  }
};

/// One of several threads: calls the networks in turn, and replaces one now and then. Its images
/// and results are its own, and need no lock.
/// @return calls with a wrong result
int callInTurn(std::vector<Served>& networks, int device, int thread, int calls) {
  CheckCuda(cudaSetDevice(device));
  int wrong = 0;
  for (int i = 0; i < calls; ++i) {
    Served& served = networks[(thread + i) % networks.size()];
    const int batch = 1 + i % served.maxBatch;
    ForwardCall forward{served.kind.table, served.maxBatch};
    {
      const Lock lock(GPU::getMutex());
      if ((thread * 7 + i) % 37 == 0) served.renew();
      forward(*served.network, batch);
    }
    wrong += forward.take() != served.expected[batch - 1];
  }
  return wrong;
}

struct ThreadTest : ContractTest {
  static void callFromEightThreads(std::vector<Served> networks, int calls) {
    const int device = GPU().getDeviceID();
    for (Served& served : networks) {
      served.renew();
      ForwardCall forward{served.kind.table, served.maxBatch};
      for (int batch = 1; batch <= served.maxBatch; ++batch) {
        served.expected.push_back(forward.results(*served.network, batch));
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
  std::vector<Served> networks;
  for (const int i : {1, 2, 3, 4}) networks.push_back({smallKind, i, 100U * i});
  callFromEightThreads(std::move(networks), 1000);
}

TEST_F(ThreadTest, GetFromLargeNetworksWhatOneThreadGets) {
  std::vector<Served> networks;
  for (const int i : {0, 2, 4, 7}) networks.push_back({networkKinds[i], 2});
  callFromEightThreads(std::move(networks), repetitions("FACEZOO_THREAD_CALLS", 4));
}

#if FACEZOO_SIMULATED

struct GPUProbe : GPU {
  static int& chosen() { return DeviceID; }
};

std::size_t usedBytes(int device) {
  std::size_t free = 0, total = 0;
  CheckCuda(cudaSetDevice(device));
  CheckCuda(cudaMemGetInfo(&free, &total));
  return total - free;
}

TEST_F(ThreadTest, WorkOnTheDeviceThatTheySelectAndElseOnTheFirst) {
  host_device::setDevices(
      {{"too old", 3, 5, std::size_t{8} << 30}, {"fits", 6, 1, std::size_t{4} << 30}});
  const int chosenBefore = std::exchange(GPUProbe::chosen(), -1);
  GPU gpu;
  EXPECT_EQ(1, gpu.getDeviceID());
  for (const int selected : {0, 1}) {
    SCOPED_TRACE(selected);
    std::unique_ptr<Network> network;
    std::thread([&] {
      if (selected != 0) CheckCuda(cudaSetDevice(gpu.getDeviceID()));
      const Lock lock(GPU::getMutex());
      network.reset(smallKind.construct(seededFile(smallNetwork), 1));
    }).join();
    EXPECT_LT(std::size_t{128} << 20, usedBytes(selected));
    EXPECT_EQ(0U, usedBytes(1 - selected));
    network.reset();
    EXPECT_EQ(0U, usedBytes(selected));
  }
  GPUProbe::chosen() = chosenBefore;
  host_device::restoreDefaultDevices();
}

#endif

}  // namespace
}  // namespace facezoo::test
