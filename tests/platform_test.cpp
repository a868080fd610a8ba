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
  const struct {
    const char* what;
    void* to;
    const void* from;
    std::size_t bytes;
    cudaMemcpyKind kind;
    cudaError_t status;
  } cases[] = {
      {"up", device, host, kBytes, cudaMemcpyHostToDevice, cudaSuccess},
      {"up, inside", device + 60, host, 4, cudaMemcpyHostToDevice, cudaSuccess},
      {"up, past the end", device + 60, host, 5, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"up, before the start", device - 1, host, 2, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"up from device", device, second, 4, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"up to host", host, other, 4, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"down", host, device, kBytes, cudaMemcpyDeviceToHost, cudaSuccess},
      {"down, too much", host, device, kBytes + 1, cudaMemcpyDeviceToHost, cudaErrorInvalidValue},
      {"down to device", second, device, 4, cudaMemcpyDeviceToHost, cudaErrorInvalidValue},
      {"across", second, device, kBytes, cudaMemcpyDeviceToDevice, cudaSuccess},
      {"across from host", second, host, 4, cudaMemcpyDeviceToDevice, cudaErrorInvalidValue},
      {"host to host", host, other, kBytes, cudaMemcpyHostToHost, cudaSuccess},
      {"a kind that is none", device, host, 4, static_cast<cudaMemcpyKind>(4),
       cudaErrorInvalidValue},
      {"to null", nullptr, host, 4, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"from null", device, nullptr, 4, cudaMemcpyHostToDevice, cudaErrorInvalidValue},
      {"wrapped size", device, second, std::size_t(-4), cudaMemcpyDeviceToDevice,
       cudaErrorInvalidValue},
      {"nothing", nullptr, nullptr, 0, cudaMemcpyDeviceToDevice, cudaSuccess},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.status, cudaMemcpy(c.to, c.from, c.bytes, c.kind)) << c.what;
    EXPECT_EQ(c.status, cudaGetLastError()) << c.what;
  }
  EXPECT_EQ(cudaErrorInvalidValue, cudaMemset(device, 0, kBytes + 1));
  EXPECT_EQ(cudaErrorInvalidValue, cudaMemset(host, 0, 1));
  EXPECT_EQ(cudaErrorInvalidValue, cudaMemcpy2D(second, 4, device, 8, 5, 2,
                                                cudaMemcpyDeviceToDevice));  // wider than a pitch
  EXPECT_EQ(cudaErrorInvalidValue, cudaMemcpy2D(second, 32, device, 4, 4, 3,
                                                cudaMemcpyDeviceToDevice));  // third row outside
  EXPECT_EQ(cudaSuccess, cudaMemcpy2D(second, 60, device, 4, 4, 2, cudaMemcpyDeviceToDevice));

  EXPECT_EQ(cudaErrorInvalidValue, cudaFree(device + 4));
  EXPECT_EQ(cudaErrorInvalidValue, cudaFree(host));
  EXPECT_EQ(cudaSuccess, cudaFree(nullptr));
  EXPECT_EQ(cudaSuccess, cudaFree(device));
  EXPECT_EQ(cudaErrorInvalidValue, cudaFree(device));
  EXPECT_EQ(cudaErrorInvalidValue, cudaMemcpy(host, device, 4, cudaMemcpyDeviceToHost));
  EXPECT_EQ(cudaSuccess, cudaFree(second));
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
  const struct {
    const char* what;
    std::function<void(TinyConvolution&)> spoil;
    cudnnStatus_t status;
  } cases[] = {
      {"as it is", [](TinyConvolution&) {}, CUDNN_STATUS_SUCCESS},
      {"no handle",
       [](TinyConvolution& c) {
         cudnnDestroy(c.handle);
         c.handle = nullptr;
       },
       CUDNN_STATUS_BAD_PARAM},
      {"destroyed filter", [](TinyConvolution& c) { c.filterShape = FilterDescriptor(); },
       CUDNN_STATUS_BAD_PARAM},
      {"unset convolution",
       [](TinyConvolution& c) {
         c.convolution.destroy();
         c.convolution.create();
       },
       CUDNN_STATUS_BAD_PARAM},
      {"channels that differ",
       [](TinyConvolution& c) {
         describe(c.input, {1, 2, 1, 1});
       },
       CUDNN_STATUS_BAD_PARAM},
      {"an output that differs",
       [](TinyConvolution& c) {
         describe(c.output, {1, 1, 2, 1});
       },
       CUDNN_STATUS_BAD_PARAM},
      {"input in host memory", [&](TinyConvolution& c) { c.xData = &onHost; },
       CUDNN_STATUS_BAD_PARAM},
      {"input larger than its memory",
       [](TinyConvolution& c) {
         describe(c.input, {2, 1, 1, 1});
         describe(c.output, {2, 1, 1, 1});
       },
       CUDNN_STATUS_BAD_PARAM},
      {"another blending", [](TinyConvolution& c) { c.alpha1 = 2.0F; }, CUDNN_STATUS_NOT_SUPPORTED},
      {"no workspace", [](TinyConvolution& c) { c.workspaceBytes = 0; }, CUDNN_STATUS_SUCCESS},
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
