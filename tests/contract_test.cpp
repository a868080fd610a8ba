// What hosts may rely on in errors, the pool and networks, on a simulated device and on a card.
#include "calls.h"
#include "facezoo/listener.h"
#include "network_facts.h"

#include <cxxabi.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <regex>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <typeinfo>

namespace facezoo::test {
namespace {

/// A host's class with a network as a member. Its base's destructor must not throw, so that a
/// network whose destructor might would not compile there.
struct Host {
  virtual ~Host() = default;
};
template <class Net>
struct HostOf : Host {
  Net member{"", 1, ""};
};
template <class... Classes>
constexpr bool neverThrowInDestructors = (std::is_nothrow_destructible_v<Classes> && ...);
template <class... Entries>
constexpr bool fitHosts(NetworkList<Entries...> /*networks*/) {
  return neverThrowInDestructors<typename Entries::Class..., HostOf<typename Entries::Class>...>;
}
static_assert(neverThrowInDestructors<GPU, Layer, LayerBase, Network, Tensor, TensorBase>);
static_assert(fitHosts(Networks()));

TEST(NetworkListTest, PairsEachClassWithTheTableOfItsName) {
  for (const auto& [mangled, name] : Networks::map([](auto entry) {
         return std::pair(typeid(typename decltype(entry)::Class).name(), entry.table.name);
       })) {
    const std::unique_ptr<char, decltype(&std::free)> found(
        abi::__cxa_demangle(mangled, nullptr, nullptr, nullptr), std::free);
    EXPECT_STREQ(name, found.get());
  }
}

TEST_F(ContractTest, AFailingStatusIsClearedThenPrintedThenThrown) {
  testing::internal::CaptureStderr();
  expectCalls({"cudaGetLastError", "cudaGetErrorString", "cudaGetLastError", "cudnnGetErrorString",
               "cudaGetLastError"},
              [] {
                CheckCuda(cudaSuccess);
                CheckCudnn(CUDNN_STATUS_SUCCESS);
                CheckCublas(CUBLAS_STATUS_SUCCESS);
                EXPECT_EQ(2, thrownBy<cudaError>([] { CheckCuda(cudaErrorMemoryAllocation); }));
                EXPECT_EQ(CUDNN_STATUS_BAD_PARAM,
                          thrownBy<cudnnStatus_t>([] { CheckCudnn(CUDNN_STATUS_BAD_PARAM); }));
                EXPECT_EQ(13, thrownBy<cublasStatus_t>(
                                  [] { CheckCublas(CUBLAS_STATUS_EXECUTION_FAILED); }));
              });
  const std::string place = " at tests/contract_test.cpp line \\d+\n";
  const std::string badParam = std::to_string(CUDNN_STATUS_BAD_PARAM);
  const std::regex lines("\\[Error\\] out of memory \\(cuda error code: 2\\)" + place +
                         "\\[Error\\] CUDNN_STATUS_BAD_PARAM \\(cudnn error code: " + badParam +
                         "\\)" + place + "\\[Error\\] \\(cublas error code: 13\\)" + place);
  EXPECT_TRUE(std::regex_match(testing::internal::GetCapturedStderr(), lines));
}

/// Keeps the lines that it is told, and refuses documents while `refuses` is set.
struct RecordingListener : Listener {
  void onLine(const char* line) noexcept override { lines.emplace_back(line); }
  void onDocument(const msgpack::v1::object& root) override {
    entries = static_cast<int>(root.via.map.size);
    if (refuses) throw std::runtime_error("refused");
  }
  std::vector<std::string> lines;
  int entries = -1;
  bool refuses = false;
};

TEST_F(ContractTest, WhoListensHearsInPlaceOfTheStreams) {
  const std::string longPrefix(2000, 'p');
  const auto construct = [](const char* path, const std::string& prefix) {
    return thrownBy<NetworkError>([&] { const SmallNetwork net(path, 1, prefix); });
  };
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  {
    RecordingListener outer;
    {
      RecordingListener inner;
      const std::string& file = seededFile(smallNetwork);
      EXPECT_EQ(2, thrownBy<cudaError>([] { CheckCuda(cudaErrorMemoryAllocation); }));
      EXPECT_EQ(0, construct("nowhere", ""));
      EXPECT_EQ(1, construct(file.c_str(), "up/"));
      EXPECT_EQ(1, construct(file.c_str(), longPrefix));
      ASSERT_EQ(4U, inner.lines.size());
      EXPECT_EQ(0U, inner.lines[0].find("[Error] out of memory (cuda error code: 2) at tests/"));
      EXPECT_EQ("Weight file not found.", inner.lines[1]);
      EXPECT_EQ("up/inMean-0 not found.", inner.lines[2]);
      EXPECT_EQ(longPrefix.substr(0, 1023), inner.lines[3]);

      const SmallNetwork net(file.c_str(), 1, "");
      EXPECT_EQ(9, inner.entries);
      inner.refuses = true;
      EXPECT_THROW(const SmallNetwork refused(file.c_str(), 1, ""), std::runtime_error);
      EXPECT_EQ(1, NetworkProbe::count());
    }
    EXPECT_EQ(0U, outer.lines.size());
    EXPECT_EQ(0, construct("nowhere", ""));
    EXPECT_EQ(1U, outer.lines.size());
    const Listener silent;
    EXPECT_EQ(1, construct(seededFile(smallNetwork), "up/"));
    const SmallNetwork net(seededFile(smallNetwork), 1, "");
  }
  EXPECT_EQ("", testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr());
}

TEST_F(ContractTest, TheChosenDeviceIsCurrent) {
  const int chosen = GPU().getDeviceID();
  EXPECT_EQ(chosen, GPU().getDeviceID());
  int current = -1;
  EXPECT_EQ(cudaSuccess, cudaGetDevice(&current));
  EXPECT_EQ(chosen, current);
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
    expectCalls(times(step.freed, {"cudaFree"}) + times(step.allocated, {"cudaMalloc"}),
                [&] { growPool(step.bytes, step.count); });
    EXPECT_EQ(step.blocks, freeBlocks(step.floats));
    EXPECT_EQ(0, freeBlocks(step.floats + 1));
  }
}

TEST_F(ContractTest, BlocksAreTakenFromTheFrontAndReturnedAtTheBack) {
  growPool(480, 2);
  const auto wants = [](int n, int c, int h, int w) { Tensor tensor({n, c, h, w}); };
  expectCalls({}, [&] { wants(2, 3, 4, 5); });
  EXPECT_EQ(0, thrownBy<TensorError>([&] { wants(2, 3, 4, 6); }));
  // Sizes whose products would wrap around to something that fits, in 32 bits or in 64.
  for (const int4 vast : {int4{1 << 30, 4, 1, 1},
                          {INT_MAX, 1, 1, 1},
                          {1 << 16, 1 << 16, 1 << 16, 1 << 16},
                          {-(1 << 16), 1 << 16, -(1 << 16), 1 << 16},
                          {INT_MIN, INT_MIN, INT_MIN, INT_MIN}}) {
    EXPECT_EQ(0, thrownBy<TensorError>([&] { const Tensor tensor(vast); })) << vast.x;
  }

  Tensor first({1, 1, 1, 1});
  const float* block = first.base->data;
  Tensor second({1, 1, 1, 1});
  Tensor copy = first;
  first = LayerBase()(Layer()(copy));  // both return their input, with the same block
  copy = Tensor();
  EXPECT_EQ(0, thrownBy<TensorError>([&] { wants(1, 1, 1, 1); }));
  first = Tensor();
  EXPECT_EQ(block, Tensor({1, 1, 1, 1}).base->data);
  second = Tensor();  // its block returns behind the other
  EXPECT_EQ(block, Tensor({1, 1, 1, 1}).base->data);
  EXPECT_NE(block, Tensor({1, 1, 1, 1}).base->data);
}

struct NetworkPass : ContractTest, testing::WithParamInterface<NetworkKind> {};

TEST_P(NetworkPass, RepeatsItsBitsInAsManyBlocksAsDocumented) {
  const NetworkTable& table = GetParam().table;
  const int blocks = factsOf(table).blocks, largest = factsOf(table).largestTensor;
  const auto net = GetParam().make(2);
  EXPECT_EQ(std::tuple(table.channels, table.width, table.height, table.outputDim),
            std::tuple(net->getChannels(), net->getWidth(), net->getHeight(), net->getOutputDim()));
  ForwardCall forward{table, 2};
  const std::vector<float> one = forward.results(*net, 1);
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
  EXPECT_EQ(one, forward.results(*net, 1));
  EXPECT_LE(largest, table.perImageBytes);
  std::cout << "measured " << table.name << ": " << blocks << " of " << table.bufferCount
            << " pool blocks\n";
}

INSTANTIATE_TEST_SUITE_P(, NetworkPass, testing::ValuesIn(networkKinds),
                         testing::PrintToStringParamName());

TEST_F(ContractTest, NetworksShareWhatTheLastOneReleases) {
  ForwardCall forward{smallNetwork, 1};
  struct Member {
    Network* (*construct)(const char*, int);
    int blocks, maxBatch;
    std::unique_ptr<Network> net{};
    std::vector<float> expected{};
    void renew() { net.reset(construct(seededFile(smallNetwork, blocks), maxBatch)); }
  } members[] = {{construct<SmallNetworkOf<5>>, 5, 1},
                 {construct<SmallNetworkOf<3>>, 3, 2},
                 {construct<SmallNetworkOf<2>>, 2, 3}};
  for (Member& member : members) {
    member.renew();
    member.expected = forward.results(*member.net, 1);
  }
  for (Member& member : members) member.net.reset();
#if FACEZOO_SIMULATED
  host_device::poisonFreshMemory(false);  // to fill each workspace would take too long
  const std::size_t idle = host_device::live().allocations;
#endif
  int order[] = {0, 1, 2}, end[] = {0, 1, 2};
  do do {
      SCOPED_TRACE(testing::PrintToString(order) + ", " + testing::PrintToString(end));
      int blocks = 0, floats = 0;
      for (int i : order) {
        members[i].renew();
        blocks = std::max(blocks, members[i].blocks);
        floats = std::max(floats, members[i].maxBatch * smallNetwork.perImageBytes / 4);
      }
      for (int alive = 3; alive > 0; --alive) {
        EXPECT_EQ(alive, NetworkProbe::count());
        EXPECT_EQ(blocks, freeBlocks(floats));
        EXPECT_EQ(0, freeBlocks(floats + 1));
        for (const Member& member : members) {
          if (!member.net) continue;
          EXPECT_EQ(member.expected, forward.results(*member.net, 1));
        }
        members[end[3 - alive]].net.reset();
      }
#if FACEZOO_SIMULATED
      EXPECT_EQ(0U, host_device::live().handles);
      EXPECT_EQ(idle, host_device::live().allocations);
#endif
    } while (std::next_permutation(end, end + 3));
  while (std::next_permutation(order, order + 3));
}

/// Copies a network, the copy, and the first once more, which is empty then; destroys the four in
/// the first `orders` of their 24 orders.
template <class Net>
void expectCopiesToTakeEverythingOver(const NetworkTable& table, int orders) {
  ForwardCall forward{table, 2};
#if FACEZOO_SIMULATED
  const std::size_t idle = host_device::live().allocations;
#endif
  int order[] = {0, 1, 2, 3};
  do {
    SCOPED_TRACE(table.name + testing::PrintToString(order));
    std::unique_ptr<Net> nets[4];
    std::unique_ptr<Net>&owner = nets[0], &source = nets[1];
    source = std::make_unique<Net>(seededFile(table), 2, "");
    const std::vector<float> expected = forward.results(*source, 2);
    expectCalls({}, [&] {
      nets[2] = std::make_unique<Net>(*source);
      owner = std::make_unique<Net>(*nets[2]);
      nets[3] = std::make_unique<Net>(*source);
    });
    EXPECT_EQ(table.outputDim, owner->getOutputDim());
    for (const int next : order) {
      EXPECT_EQ(owner ? 1 : 0, NetworkProbe::count());
      for (const std::unique_ptr<Net>& net : nets) {
        if (net && net == owner) {
          EXPECT_EQ(expected, forward.results(*net, 2));
        } else if (net) {
          EXPECT_EQ(1, thrownBy<NetworkError>([&] { forward(*net, 2); }));
        }
      }
      if (next > 0) {
        expectCalls({}, [&] { nets[next].reset(); });
        continue;
      }
      owner.reset();
#if FACEZOO_SIMULATED
      EXPECT_EQ(0U, host_device::live().handles);
      EXPECT_EQ(idle, host_device::live().allocations);
#endif
    }
  } while (--orders > 0 && std::next_permutation(order, order + 4));
}

TEST_F(ContractTest, ACopyTakesEverythingOver) {
  expectCopiesToTakeEverythingOver<SmallNetwork>(smallNetwork, 24);
  expectCopiesToTakeEverythingOver<DexpressionNet>(dexpressionNet, 1);
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
  int printed = 5;
#if FACEZOO_SIMULATED
  // A card may accept the wrong kind of memory, and accesses behind an array.
  EXPECT_EQ(1, thrownBy<cudaError>(run(hostImages.data(), 1, out.data())));
  EXPECT_EQ(1, thrownBy<cudaError>(run(oneImage.data(), 2, out.data())));
  EXPECT_EQ(1, thrownBy<cudaError>(run(images.data(), 1, deviceOut.data())));
  printed += 3;
#endif
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(printed, std::count(lines.begin(), lines.end(), '\n')) << lines;
  run(images.data(), 2, out.data())();

  // 630 × 3411968 bytes exceed an int, and so do -630.
  for (const int most : {630, -630, INT_MAX, INT_MIN}) {
    EXPECT_EQ(0, thrownBy<TensorError>(
                     [&] { const DexpressionNet vast(seededFile(dexpressionNet), most, ""); }))
        << most;
  }
  // A wrong file is reported before a wrong `maxBatch`.
  const TemporaryFile noMap;
  std::ofstream(noMap.path) << "an integer";
  EXPECT_EQ(1, thrownBy<NetworkError>(
                   [&] { const DexpressionNet vast(noMap.path.c_str(), INT_MAX, ""); }));
  EXPECT_EQ(1, NetworkProbe::count());
}

}  // namespace
}  // namespace facezoo::test
