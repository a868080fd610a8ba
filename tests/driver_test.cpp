// What the production build says on a machine without a driver.
#include "GPU.h"
#include "support.h"

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

}  // namespace
}  // namespace facezoo::test
