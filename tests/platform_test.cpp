// The CPU platform as a device: it refuses wrong pointers and descriptors, its algorithms compute
// the same in every workspace, and what it derives from memory follows the memory's changes.
#include "../platform/cuda/internal/read_ahead.h"
#include "facezoo/listener.h"
#include "layers/cba.h"
#include "reference.h"

#include <cmath>
#include <functional>
#include <future>
#include <limits>
#include <numeric>

namespace facezoo::test {
namespace {

using PlatformTest = DeviceTest;
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

TEST_F(PlatformTest, CopiesMustFitTheirPointers) {
  constexpr std::size_t kBytes = 64;
  char host[2 * kBytes] = {};
  char other[kBytes] = {};
  char* device = nullptr;
  char* second = nullptr;
  ASSERT_EQ(cudaSuccess, cudaMalloc(&device, kBytes));
  ASSERT_EQ(cudaSuccess, cudaMalloc(&second, kBytes));
  constexpr auto up = cudaMemcpyHostToDevice, down = cudaMemcpyDeviceToHost;
  constexpr auto across = cudaMemcpyDeviceToDevice, none = static_cast<cudaMemcpyKind>(4);
  constexpr auto ok = cudaSuccess, bad = cudaErrorInvalidValue;
  const struct {
    const char* what;
    void* to;
    const void* from;
    std::size_t bytes;
    cudaMemcpyKind kind;
    cudaError_t status;
  } cases[] = {
      {"up", device, host, kBytes, up, ok},
      {"up, inside", device + 60, host, 4, up, ok},
      {"up, past the end", device + 60, host, 5, up, bad},
      {"up, before the start", device - 1, host, 2, up, bad},
      {"up from device", device, second, 4, up, bad},
      {"up to host", host, other, 4, up, bad},
      {"down", host, device, kBytes, down, ok},
      {"down, too much", host, device, kBytes + 1, down, bad},
      {"down to device", second, device, 4, down, bad},
      {"across", second, device, kBytes, across, ok},
      {"across from host", second, host, 4, across, bad},
      {"host to host", host, other, kBytes, cudaMemcpyHostToHost, ok},
      {"a kind that is none", device, host, 4, none, bad},
      {"to null", nullptr, host, 4, up, bad},
      {"from null", device, nullptr, 4, up, bad},
      {"wrapped size", device, second, std::size_t(-4), across, bad},
      {"nothing", nullptr, nullptr, 0, across, ok},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.status, cudaMemcpy(c.to, c.from, c.bytes, c.kind)) << c.what;
    EXPECT_EQ(c.status, cudaGetLastError()) << c.what;
  }
  EXPECT_EQ(bad, cudaMemset(device, 0, kBytes + 1));
  EXPECT_EQ(bad, cudaMemset(host, 0, 1));
  EXPECT_EQ(bad, cudaMemcpy2D(second, 4, device, 8, 5, 2, across));   // wider than a pitch
  EXPECT_EQ(bad, cudaMemcpy2D(second, 32, device, 4, 4, 3, across));  // third row outside
  EXPECT_EQ(ok, cudaMemcpy2D(second, 60, device, 4, 4, 2, across));
  EXPECT_EQ(bad, cudaFree(device + 4));
  EXPECT_EQ(bad, cudaFree(host));
  EXPECT_EQ(ok, cudaFree(nullptr));
  EXPECT_EQ(ok, cudaFree(device));
  EXPECT_EQ(bad, cudaFree(device));
  EXPECT_EQ(bad, cudaMemcpy(host, device, 4, down));
  EXPECT_EQ(ok, cudaFree(second));
}

TEST_F(PlatformTest, ADeviceHasTheMemoryItSays) {
  const std::size_t used = host_device::live().bytes;
  host_device::setDevices({{"small", 7, 0, used + 1000}, {"large", 7, 0, used + 5000}});
  void* first = nullptr;
  void* second = nullptr;
  std::size_t free = 0, total = 0;
  EXPECT_EQ(cudaSuccess, cudaMalloc(&first, 600));
  EXPECT_EQ(cudaErrorInvalidValue, cudaMemGetInfo(nullptr, &total));
  EXPECT_EQ(cudaSuccess, cudaMemGetInfo(&free, &total));
  EXPECT_EQ(400, free);
  EXPECT_EQ(used + 1000, total);
  EXPECT_EQ(cudaErrorMemoryAllocation, cudaMalloc(&second, 401));
  EXPECT_EQ(nullptr, second);
  EXPECT_EQ(cudaErrorMemoryAllocation, cudaMalloc(&second, std::size_t(-1)));
  EXPECT_EQ(cudaErrorInvalidDevice, cudaSetDevice(2));
  EXPECT_EQ(cudaSuccess, cudaSetDevice(1));
  EXPECT_EQ(cudaSuccess, cudaMalloc(&second, 401));
  EXPECT_EQ(cudaSuccess, cudaMemGetInfo(&free, &total));
  EXPECT_EQ(used + 5000 - 401, free);
  EXPECT_EQ(cudaSuccess, cudaFree(first));
  EXPECT_EQ(cudaSuccess, cudaFree(second));
  host_device::restoreDefaultDevices();
  cudaGetLastError();
}

constexpr host_device::InstructionSet kInstructionSets[] = {host_device::InstructionSet::baseline,
                                                            host_device::InstructionSet::avx2,
                                                            host_device::InstructionSet::avx512};

/// A fused convolution whose parts tests can change.
struct OpenConvolution : CBA {
  using CBA::algorithm_, CBA::bias_, CBA::CBA, CBA::convolution_, CBA::filter_, CBA::filterShape_,
      CBA::input_, CBA::output_, CBA::workspaceSize;

  explicit OpenConvolution(int kernel)
      : CBA(fusedConvolution("conv", 1, 1, kernel, 1, samePadding), "", weights(kernel).root()) {}

  static Document& weights(int kernel) {
    static Document document;
    document = Document();
    return document.add("conv-0", std::vector<float>(kernel * kernel, 2)).add("conv-1", {0.5F});
  }
  static void set(const DeviceBuffer& buffer, const std::vector<float>& values) {
    CheckCuda(cudaMemcpy(buffer.get(), values.data(), values.size() * 4, cudaMemcpyHostToDevice));
  }
};

TEST_F(PlatformTest, ConvolutionRefusesWhatItCannotDo) {
  growPool(64, 2);
  float onHost = 1;
  const struct {
    const char* what;
    std::function<void(OpenConvolution&, Tensor&)> spoil;
  } cases[] = {
      {"destroyed filter", [](auto& c, auto&) { c.filterShape_ = FilterDescriptor(); }},
      {"unset convolution",
       [](auto& c, auto&) { (c.convolution_ = ConvolutionDescriptor()).create(); }},
      {"channels that differ",
       [](auto& c, auto&) {
         describe(c.input_, {1, 2, 1, 1});
       }},
      {"an output that differs",
       [](auto& c, auto&) {
         describe(c.output_, {1, 1, 2, 1});
       }},
      {"a batch larger than its memory",
       [](auto& c, auto&) {
         describe(c.input_, {17, 1, 1, 1});
         describe(c.output_, {17, 1, 1, 1});
       }},
      {"input in host memory", [&](auto&, auto& x) { x.base->data = &onHost; }},
  };
  for (const auto& c : cases) {
    OpenConvolution layer(1);
    Tensor x = upload<float>({3}, {1, 1, 1, 1});
    EXPECT_EQ(6.5F, download(layer(x))[0]);
    c.spoil(layer, x);
    testing::internal::CaptureStderr();
    EXPECT_THROW(layer(x), cudnnStatus_t) << c.what;
    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find("CUDNN_STATUS_BAD_PARAM"));
  }
}

TEST_F(PlatformTest, EveryAlgorithmInEveryInstructionSetAndWorkspace) {
  constexpr auto loops = CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM;
  constexpr auto panels = CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM;
  constexpr auto winograd = CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED;
  const struct {
    cudnnConvolutionFwdAlgo_t algorithm;
    int n, c, h, w, outputs, kernel, stride, padded;
  } cases[] = {
      {loops, 2, 3, 9, 11, 5, 3, 2, 1},      {panels, 3, 7, 6, 5, 9, 1, 1, 1},
      {panels, 1, 5, 30, 41, 19, 1, 1, 0},   {panels, 3, 3, 23, 22, 10, 7, 2, 1},
      {panels, 2, 4, 9, 7, 8, 3, 1, 1},      {panels, 1, 1, 3, 90, 1, 3, 3, 0},
      {panels, 2, 2, 2, 1, 3, 5, 1, 1},      {winograd, 1, 2, 1, 1, 3, 3, 1, 1},
      {winograd, 3, 9, 13, 11, 17, 3, 1, 1}, {winograd, 1, 3, 70, 90, 20, 3, 1, 0},
      {winograd, 2, 5, 9, 14, 9, 5, 1, 1},   {winograd, 5, 2, 7, 7, 8, 5, 1, 0},
  };
  for (const auto set : kInstructionSets) {
    if (!host_device::useInstructionSet(set)) {
      std::printf("measured nothing in instruction set %d, which this machine lacks\n",
                  static_cast<int>(set));
      continue;
    }
    ASSERT_EQ(set, host_device::instructionSet());
    for (const auto& t : cases) {
      const int taps = t.c * t.kernel * t.kernel, pad = t.padded != 0 ? t.kernel / 2 : 0;
      const auto filter = seededValues(static_cast<std::size_t>(t.outputs) * taps, 1);
      const auto bias = seededValues(t.outputs, 2);
      Document weights;
      weights.add("conv-0", filter).add("conv-1", bias);
      OpenConvolution layer(
          fusedConvolution("conv", t.c, t.outputs, t.kernel, t.stride, t.padded != 0), "",
          weights.root());
      const Image4 x = seededImage(t.n, t.c, t.h, t.w, 3);
      const Image4 y = relu(convolution(x, filter, bias, t.kernel, t.stride, pad));
      const Image4 scale = convolutionScale(x, filter, bias, t.kernel, t.stride, pad);
      int served = 0;
      for (layer.workspaceSize = 128U << 20U;; layer.workspaceSize = layer.workspaceSize * 3 / 4) {
        freePool();
        growPool(1 << 19, 2);  // blocks that nobody has written to
        const Tensor input = upload(x);
        if (served == 0) layer(input);  // lets the layer prepare for the shape
        layer.algorithm_ = t.algorithm;
        // The call must not write behind the workspace that it is told of.
        const std::vector<char> beyond(layer.workspaceSize < 100U << 20U ? 4096 : 0, 0x5A);
        char* const end = static_cast<char*>(LayerBase::workspace_) + layer.workspaceSize;
        CheckCuda(cudaMemset(end, 0x5A, beyond.size()));
        const Listener silent;
        try {
          expectClose(layer(input), y, scale, roundings(taps, 128));
        } catch (cudnnStatus_t status) {
          EXPECT_EQ(CUDNN_STATUS_BAD_PARAM, status);
          break;
        }
        std::vector<char> found(beyond.size());
        CheckCuda(cudaMemcpy(found.data(), end, found.size(), cudaMemcpyDeviceToHost));
        EXPECT_EQ(beyond, found);
        ++served;
        if (t.algorithm == loops && layer.workspaceSize < 16) break;
      }
      EXPECT_LT(20, served) << t.algorithm << ", " << t.c << " to " << t.outputs << " channels";
    }
  }
}

// Tiles of 7 x 7, 5 x 5 and 9 x 9: alone, the last one is behind whole vectors.
TEST_F(PlatformTest, AnImageHasTheSameBitsInEveryBatch) {
  growPool(1 << 19, 4);
  for (const auto set : kInstructionSets) {
    if (!host_device::useInstructionSet(set)) continue;
    for (const auto& [kernel, edge] : {std::pair(3, 28), {3, 17}, {5, 18}}) {
      Document weights;
      weights.add("conv-0", seededValues(37 * 9 * kernel * kernel, 1));
      weights.add("conv-1", seededValues(37, 2));
      CBA layer(fusedConvolution("conv", 9, 37, kernel, 1, samePadding), "", weights.root());
      Image4 x = seededImage(3, 9, edge, edge, 3);
      std::vector<float> first = download(layer(upload(x)));
      first.resize(first.size() / x.n);
      x.v.resize(x.v.size() / x.n);
      x.n = 1;
      EXPECT_EQ(first, download(layer(upload(x)))) << kernel << " on " << edge;
    }
  }
}

TEST_F(PlatformTest, TransformsOverflowFromAHundredthOfTheLargestFloat) {
  growPool(1 << 14, 2);
  for (const int kernel : {3, 5}) {
    Document weights;
    weights.add("conv-0", std::vector<float>(kernel * kernel, 1e-3F)).add("conv-1", {0.0F});
    OpenConvolution layer(fusedConvolution("conv", 1, 1, kernel, 1, noPadding), "", weights.root());
    for (const auto& [algorithm, limit] :
         {std::pair(CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM, 1.0F),
          {CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED, 0.01F}}) {
      for (const float part : {0.0099F, 0.0101F, 0.99F}) {
        // One tile, with the signs that give the largest sums in Winograd's transforms.
        std::vector<float> x(36);
        for (int i = 0; i < 36; ++i) x[i] = (i % 6 == 2) != (i / 6 == 2) ? -part : part;
        for (float& value : x) value *= std::numeric_limits<float>::max();
        const Tensor in = upload(x, {1, 1, 6, 6});
        layer(in);  // lets the layer prepare for the shape
        layer.algorithm_ = algorithm;
        // What overflows is NaN in the end, which is rectified.
        const float first = download(layer(in))[0];
        EXPECT_EQ(part < limit, std::isfinite(first) && first > 0)
            << kernel << ", " << algorithm << ", " << part << ": " << first;
      }
    }
  }
}

TEST_F(PlatformTest, AKeptFilterNeverOutlivesItsContents) {
  growPool(64, 2);
  OpenConvolution layer(3);
  const auto result = [&] { return download(layer(upload<float>({3}, {1, 1, 1, 1})))[0]; };
  result();  // lets the layer prepare for the shape
  layer.algorithm_ = CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED;
  for (const float value : {2.0F, 4.0F}) {
    layer.set(layer.filter_, std::vector<float>(9, value));
    for (int call = 0; call < 3; ++call)  // transformed for this call, then kept, then found
      EXPECT_NEAR(3 * value + 0.5F, result(), 1e-5F) << call;
  }
  layer.set(layer.bias_, {nan});
  EXPECT_EQ(0.0F, result());  // the fused activation does not propagate NaN
}

// One of two calls at once has the team of threads, the other computes alone.
TEST_F(PlatformTest, FillsFromTwoThreadsAtOnce) {
  const auto wrongFills = [] {
    constexpr std::size_t bytes = std::size_t{3} << 20;
    std::vector<unsigned char> found(bytes);
    void* memory = nullptr;
    int wrong = cudaMalloc(&memory, bytes) != cudaSuccess ? 1 : 0;
    for (int value = 1; value < 100; ++value) {
      cudaMemset(memory, value, bytes);
      cudaMemcpy(found.data(), memory, bytes, cudaMemcpyDeviceToHost);
      if (std::count(found.begin(), found.end(), value) != bytes) ++wrong;
    }
    cudaFree(memory);
    return wrong;
  };
  std::future<int> other = std::async(std::launch::async, wrongFills);
  EXPECT_EQ(0, wrongFills());
  EXPECT_EQ(0, other.get());
}

// What device code compiled by nvcc reads with is plain C++: compiled here, AddressSanitizer sees a
// read past the end.
TEST(ReadAhead, VisitsEveryValueOnceInOrder) {
  for (int offset = 0; offset < 5; ++offset)
    for (const int count : {0, 1, 3, 4, 127, 128, 131, 132, 255, 256, 259, 1000}) {
      std::vector<float> values(offset + count);
      std::iota(values.begin(), values.end(), 0.0F);
      std::vector<float> visited(values.begin(), values.begin() + offset);
      read_ahead::inOrder(values.data() + offset, count,
                          [&](float value) { visited.push_back(value); });
      EXPECT_EQ(values, visited) << offset << ", " << count;
    }
}

TEST_F(PlatformTest, FreshMemoryIsPoisoned) {
  DeviceBuffer buffer;
  buffer.allocate(7);
  float values[7] = {};
  CheckCuda(cudaMemcpy(values, buffer.get(), sizeof values, cudaMemcpyDeviceToHost));
  for (const float value : values) EXPECT_TRUE(std::isnan(value));
}

}  // namespace
}  // namespace facezoo::test
