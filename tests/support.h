/// @file
/// What every test needs: weights in memory, values in and out of tensors, a clean device.
#pragma once

#include "buffer_pool.h"
#include "facezoo/layer.h"

#include <gtest/gtest.h>
#include <msgpack.hpp>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// The build defines it: 1 where the device is simulated and can be controlled, 0 on a GPU.
#if FACEZOO_SIMULATED
#include <host_device.h>
#endif

namespace facezoo::test {

/// A MessagePack map in memory. Entries keep the order in which they are added; equal keys stay.
class Document {
 public:
  using Packer = msgpack::v1::packer<msgpack::v1::sbuffer>;

  Document& add(const std::string& name, const std::vector<float>& values);
  /// The callback packs the value, of any type.
  Document& raw(const std::string& name, const std::function<void(Packer&)>& packValue);
  /// The callback packs key and value.
  Document& entry(const std::function<void(Packer&)>& packKeyAndValue);

  std::string bytes() const;
  void save(const std::string& path) const;
  /// The parsed map, as layer constructors take it; valid until the next call.
  msgpack::v1::object& root();

 private:
  std::uint32_t count_ = 0;
  msgpack::v1::sbuffer entries_;
  msgpack::v1::unpacked parsed_;
  msgpack::v1::object root_;
};

/// The path of a file that nobody else uses, which the destructor deletes.
struct TemporaryFile {
  TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  ~TemporaryFile() { std::remove(path.c_str()); }
  std::string path;
};

/// Random values, uniform from `low` to `high`: the same for the same seed with every compiler.
std::vector<float> seededValues(std::size_t count, unsigned seed, double low = -1, double high = 1);
/// Random bytes from `low` up to, but not including, `high`.
std::vector<std::uint8_t> seededBytes(std::size_t count, unsigned seed, int low = 0,
                                      int high = 256);

/// Runs `action` in a child process, which ends with what it returns.
/// @return that; -1 if the child did not come so far
int exitCodeInChild(const std::function<int()>& action);

/// The number in the environment variable `variable`; `otherwise` if it is not set.
int numberFrom(const char* variable, int otherwise);

/// Device memory outside the pool, as a host application holds its images.
template <class T>
class DeviceArray {
 public:
  explicit DeviceArray(const std::vector<T>& values) {
    void* data = nullptr;
    CheckCuda(cudaMalloc(&data, values.size() * sizeof(T)));
    data_.reset(data);
    CheckCuda(cudaMemcpy(data, values.data(), values.size() * sizeof(T), cudaMemcpyHostToDevice));
  }
  T* data() const { return static_cast<T*>(data_.get()); }

 private:
  std::unique_ptr<void, cudaError_t (*)(void*)> data_{nullptr, cudaFree};
};

/// A tensor from the pool that starts with `values`, floats or bytes.
template <class T>
Tensor upload(const std::vector<T>& values, int4 shape) {
  Tensor tensor(shape);
  CheckCuda(cudaMemcpy(tensor.base->data, values.data(), values.size() * sizeof(T),
                       cudaMemcpyHostToDevice));
  return tensor;
}
std::vector<float> download(const Tensor& tensor);

/// Releases the pool, the handles and the workspace.
void releaseDevice();

/// When a test starts, the device holds nothing of the library's but the descriptors that live as
/// long as the process, and fresh memory is filled with NaNs. When it has ended, the device must
/// hold no more than that.
struct DeviceTest : testing::Test {
  void SetUp() override;
  void TearDown() override;
};

}  // namespace facezoo::test
