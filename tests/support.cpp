#include "support.h"

#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "layers/softmax.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <random>

namespace facezoo::test {
namespace {

// The first call of a class of layers creates descriptors that stay. Once all of them exist, any
// further descriptor is one that a test has left behind.
void createClassWideDescriptors() {
  preparePool(static_cast<int>(sizeof(float)), 2);
  const Tensor one = upload<float>({1}, {1, 1, 1, 1});
  LocalResponseNormalization()(one, 5, 1e-4F, 0.75F, 1.0F);
  MaxPooling()(one, 1, 1, 0);
  AveragePooling()(one, 1, 1, 0);
  Relu()(one);
  Softmax()(one);
}

/// Why there is no device to test on; empty if there is one.
std::string whatIsMissing() {
  int devices = 0;
  const cudaError_t status = cudaGetDeviceCount(&devices);
  if (status != cudaSuccess) return std::string("no GPU: ") + cudaGetErrorString(status);
  return devices == 0 ? "no GPU" : "";
}

/// Prints at the end how many tests were skipped because there is no device.
struct SkipCount : testing::Environment {
  void TearDown() override {
    const std::string missing = whatIsMissing();
    if (missing.empty()) return;
    const testing::UnitTest& all = *testing::UnitTest::GetInstance();
    std::cout << "skipped " << all.skipped_test_count() << " of " << all.test_to_run_count()
              << " tests: " << missing << "\n";
  }
};
const auto* const skipCount = testing::AddGlobalTestEnvironment(new SkipCount);

#if FACEZOO_SIMULATED
std::vector<std::size_t> live() {
  const host_device::Live now = host_device::live();
  return {now.allocations, now.bytes, now.handles, now.descriptors};
}
std::vector<std::size_t> before;
#endif

}  // namespace

Document& Document::add(const std::string& name, const std::vector<float>& values) {
  return raw(name, [&](Packer& packer) {
    const auto bytes = static_cast<std::uint32_t>(values.size() * sizeof(float));
    packer.pack_str(bytes);
    packer.pack_str_body(reinterpret_cast<const char*>(values.data()), bytes);
  });
}

Document& Document::raw(const std::string& name, const std::function<void(Packer&)>& packValue) {
  return entry([&](Packer& packer) {
    packer.pack(name);
    packValue(packer);
  });
}

Document& Document::entry(const std::function<void(Packer&)>& packKeyAndValue) {
  Packer packer(entries_);
  packKeyAndValue(packer);
  ++count_;
  return *this;
}

std::string Document::bytes() const {
  msgpack::v1::sbuffer header;
  Packer(header).pack_map(count_);
  return std::string(header.data(), header.size()) + std::string(entries_.data(), entries_.size());
}

void Document::save(const std::string& path) const {
  std::ofstream(path, std::ios::binary) << bytes();
}

msgpack::v1::object& Document::root() {
  const std::string all = bytes();
  msgpack::v1::unpack(parsed_, all.data(), all.size());
  root_ = parsed_.get();
  return root_;
}

TemporaryFile::TemporaryFile() {
  static int count = 0;
  path = testing::TempDir() + "facezoo-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

std::vector<float> seededValues(std::size_t count, unsigned seed, double low, double high) {
  std::mt19937 generator(seed);
  std::vector<float> values(count);
  for (float& value : values)
    value = static_cast<float>(low + (high - low) * (generator() / 4294967296.0));
  return values;
}

std::vector<std::uint8_t> seededBytes(std::size_t count, unsigned seed, int low, int high) {
  std::mt19937 generator(seed);
  std::vector<std::uint8_t> bytes(count);
  for (std::uint8_t& byte : bytes)
    byte = static_cast<std::uint8_t>(low + static_cast<int>(generator() % (high - low)));
  return bytes;
}

int exitCodeInChild(const std::function<int()>& action) {
  std::cout.flush();
  const pid_t child = fork();
  if (child == 0) {
    const int code = action();
    std::cout.flush();
    _exit(code);
  }
  int status = -1;
  EXPECT_EQ(child, waitpid(child, &status, 0));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int numberFrom(const char* variable, int otherwise) {
  const char* const wanted = std::getenv(variable);
  return wanted ? std::atoi(wanted) : otherwise;
}

std::vector<float> download(const Tensor& tensor) {
  const int4 shape = tensor.base->shape;
  std::vector<float> values(static_cast<std::size_t>(shape.x) * shape.y * shape.z * shape.w);
  CheckCuda(cudaMemcpy(values.data(), tensor.base->data, values.size() * sizeof(float),
                       cudaMemcpyDeviceToHost));
  return values;
}

void releaseDevice() {
  freePool();
  destroyPool();
  LayerBase::releaseAll();
}

void DeviceTest::SetUp() {
  if (const std::string missing = whatIsMissing(); !missing.empty()) GTEST_SKIP() << missing;
  static const bool once = (createClassWideDescriptors(), true);
  ASSERT_TRUE(once);
  releaseDevice();
#if FACEZOO_SIMULATED
  host_device::poisonFreshMemory(true);
  before = live();
  if (!host_device::useInstructionSetOfEnvironment())
    GTEST_SKIP() << "this machine lacks the instruction set that FACEZOO_INSTRUCTION_SET names";
#endif
}

void DeviceTest::TearDown() {
#if FACEZOO_SIMULATED
  host_device::clearFault();
  host_device::setObserver({});
  host_device::poisonFreshMemory(false);
  releaseDevice();
  EXPECT_EQ(before, live()) << "allocations, bytes, handles, descriptors";
#else
  if (IsSkipped()) return;
  EXPECT_EQ(cudaSuccess, cudaDeviceSynchronize());
  EXPECT_EQ(cudaSuccess, cudaGetLastError());
  releaseDevice();
#endif
}

}  // namespace facezoo::test
