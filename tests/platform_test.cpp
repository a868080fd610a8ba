// The host platform as a device: strict memory, honest statuses, derived data that never goes
// stale.
#include "layers/handles.h"
#include "support.h"

#include <cmath>
#include <functional>
#include <limits>

namespace facezoo::test {
namespace {

using PlatformTest = DeviceTest;

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
  EXPECT_EQ(cudaSuccess, cudaMalloc(&first, 600));
  EXPECT_EQ(cudaErrorMemoryAllocation, cudaMalloc(&second, 401));
  EXPECT_EQ(nullptr, second);
  EXPECT_EQ(cudaErrorMemoryAllocation, cudaMalloc(&second, std::size_t(-1)));
  EXPECT_EQ(cudaErrorInvalidDevice, cudaSetDevice(2));
  EXPECT_EQ(cudaSuccess, cudaSetDevice(1));
  EXPECT_EQ(cudaSuccess, cudaMalloc(&second, 401));
  EXPECT_EQ(cudaSuccess, cudaFree(first));
  EXPECT_EQ(cudaSuccess, cudaFree(second));
  host_device::restoreDefaultDevices();
  cudaGetLastError();
}

/// A 1 × 1 convolution of one value, whose every argument can be spoilt.
struct TinyConvolution {
  TinyConvolution() {
    cudnnCreate(&handle);
    for (TensorDescriptor* d : {&input, &output, &biasShape}) {
      d->create();
      describe(*d, {1, 1, 1, 1});
    }
    filterShape.create();
    convolution.create();
    relu.create();
    cudnnSetFilter4dDescriptor(filterShape, CUDNN_DATA_FLOAT, CUDNN_TENSOR_NCHW, 1, 1, 1, 1);
    cudnnSetConvolution2dDescriptor(convolution, 0, 0, 1, 1, 1, 1, CUDNN_CROSS_CORRELATION,
                                    CUDNN_DATA_FLOAT);
    cudnnSetActivationDescriptor(relu, CUDNN_ACTIVATION_RELU, CUDNN_NOT_PROPAGATE_NAN, 0.0);
    for (DeviceBuffer* b : {&x, &w, &bias, &y}) b->allocateZeroed(1);
    workspace.allocate(1 << 16);
  }
  ~TinyConvolution() { cudnnDestroy(handle); }

  void setBatch(int n) {
    describe(input, {n, 1, 1, 1});
    describe(output, {n, 1, 1, 1});
  }

  cudnnStatus_t run() {
    const cudnnStatus_t status = cudnnGetConvolutionForwardAlgorithm(
        handle, input, filterShape, convolution, output,
        CUDNN_CONVOLUTION_FWD_SPECIFY_WORKSPACE_LIMIT, workspaceBytes, &algorithm);
    if (status != CUDNN_STATUS_SUCCESS) return status;
    return cudnnConvolutionBiasActivationForward(
        handle, &alpha1, input, xData ? xData : x.get(), filterShape, w.get(), convolution,
        algorithm, workspace.get(), workspaceBytes, &alpha2, output, y.get(), biasShape, bias.get(),
        relu, output, y.get());
  }

  cudnnHandle_t handle = nullptr;
  TensorDescriptor input, output, biasShape;
  FilterDescriptor filterShape;
  ConvolutionDescriptor convolution;
  ActivationDescriptor relu;
  DeviceBuffer x, w, bias, y, workspace;
  const float* xData = nullptr;
  std::size_t workspaceBytes = sizeof(float) << 16;
  cudnnConvolutionFwdAlgo_t algorithm{};
  float alpha1 = 1.0F, alpha2 = 0.0F;
};

TEST_F(PlatformTest, ConvolutionRefusesWhatItCannotDo) {
  const float onHost = 1.0F;
  using C = TinyConvolution&;
  constexpr auto ok = CUDNN_STATUS_SUCCESS, bad = CUDNN_STATUS_BAD_PARAM;
  const struct {
    const char* what;
    std::function<void(C)> spoil;
    cudnnStatus_t status;
  } cases[] = {
      {"as it is", [](C) {}, ok},
      {"no workspace", [](C c) { c.workspaceBytes = 0; }, ok},
      {"no handle", [](C c) { cudnnDestroy(std::exchange(c.handle, nullptr)); }, bad},
      {"destroyed filter", [](C c) { c.filterShape = FilterDescriptor(); }, bad},
      {"unset convolution", [](C c) { (c.convolution = ConvolutionDescriptor()).create(); }, bad},
      {"channels that differ",
       [](C c) {
         describe(c.input, {1, 2, 1, 1});
       },
       bad},
      {"an output that differs",
       [](C c) {
         describe(c.output, {1, 1, 2, 1});
       },
       bad},
      {"input in host memory", [&](C c) { c.xData = &onHost; }, bad},
      {"a batch larger than its memory", [](C c) { c.setBatch(2); }, bad},
      {"another blending", [](C c) { c.alpha1 = 2.0F; }, CUDNN_STATUS_NOT_SUPPORTED},
  };
  for (const auto& c : cases) {
    TinyConvolution tiny;
    c.spoil(tiny);
    EXPECT_EQ(c.status, tiny.run()) << c.what;
  }
}

TEST_F(PlatformTest, APackedFilterNeverOutlivesItsContents) {
  TinyConvolution tiny;
  const auto set = [](DeviceBuffer& buffer, float value) {
    CheckCuda(cudaMemcpy(buffer.get(), &value, sizeof value, cudaMemcpyHostToDevice));
  };
  const auto result = [&] {
    EXPECT_EQ(CUDNN_STATUS_SUCCESS, tiny.run());
    float value = -1.0F;
    CheckCuda(cudaMemcpy(&value, tiny.y.get(), sizeof value, cudaMemcpyDeviceToHost));
    return value;
  };
  // A 3 × 3 kernel, so that the filter is packed.
  cudnnSetFilter4dDescriptor(tiny.filterShape, CUDNN_DATA_FLOAT, CUDNN_TENSOR_NCHW, 1, 1, 3, 3);
  cudnnSetConvolution2dDescriptor(tiny.convolution, 1, 1, 1, 1, 1, 1, CUDNN_CROSS_CORRELATION,
                                  CUDNN_DATA_FLOAT);
  const auto setFilter = [&](float value) {
    const std::vector<float> nine(9, value);
    CheckCuda(cudaMemcpy(tiny.w.get(), nine.data(), 36, cudaMemcpyHostToDevice));
  };
  tiny.w = DeviceBuffer();
  tiny.w.allocate(9);
  set(tiny.x, 3.0F);
  set(tiny.bias, 0.5F);
  setFilter(2.0F);
  EXPECT_EQ(6.5F, result());
  setFilter(4.0F);
  EXPECT_EQ(12.5F, result());
  set(tiny.bias, -20.0F);
  EXPECT_EQ(0.0F, result());
  set(tiny.bias, std::numeric_limits<float>::quiet_NaN());
  EXPECT_EQ(0.0F, result());      // the fused activation does not propagate NaN
  for (int i = 0; i < 50; ++i) {  // the same address may come back with other contents
    tiny.w = DeviceBuffer();
    tiny.w.allocate(9);
    set(tiny.bias, 0.0F);
    setFilter(static_cast<float>(i));
    EXPECT_EQ(3.0F * static_cast<float>(i), result());
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
