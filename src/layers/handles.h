/// @file
/// Owners of descriptors and device memory. Each starts empty and is filled by an explicit call:
/// the order of the calls is the order of the code, and a constructor that throws half-way releases
/// what it had. What a destructor releases is not checked.
#pragma once

#include "check.h"

#include <cstddef>
#include <utility>

namespace facezoo {

/// Factors of a call that overwrites its output y with a result: y = kOne · result + kZero · y.
inline constexpr float kOne = 1.0F;
inline constexpr float kZero = 0.0F;

/// Owns one cuDNN descriptor.
template <class Handle, cudnnStatus_t (*Create)(Handle*), cudnnStatus_t (*Destroy)(Handle)>
class Descriptor {
 public:
  Descriptor() = default;
  Descriptor(Descriptor&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Descriptor() {
    if (handle_) Destroy(handle_);
  }

  /// Creates the descriptor unless there is one. @throws cudnnStatus_t
  void create(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (!handle_) CheckCudnn(Create(&handle_), file, line);
  }
  /// Destroys it, once, and checks the status. @throws cudnnStatus_t
  void destroy(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    CheckCudnn(Destroy(std::exchange(handle_, nullptr)), file, line);
  }

  operator Handle() const { return handle_; }

 private:
  Handle handle_ = nullptr;
};

using TensorDescriptor =
    Descriptor<cudnnTensorDescriptor_t, cudnnCreateTensorDescriptor, cudnnDestroyTensorDescriptor>;
using FilterDescriptor =
    Descriptor<cudnnFilterDescriptor_t, cudnnCreateFilterDescriptor, cudnnDestroyFilterDescriptor>;
using ConvolutionDescriptor =
    Descriptor<cudnnConvolutionDescriptor_t, cudnnCreateConvolutionDescriptor,
               cudnnDestroyConvolutionDescriptor>;
using PoolingDescriptor = Descriptor<cudnnPoolingDescriptor_t, cudnnCreatePoolingDescriptor,
                                     cudnnDestroyPoolingDescriptor>;
using LRNDescriptor =
    Descriptor<cudnnLRNDescriptor_t, cudnnCreateLRNDescriptor, cudnnDestroyLRNDescriptor>;
using ActivationDescriptor =
    Descriptor<cudnnActivationDescriptor_t, cudnnCreateActivationDescriptor,
               cudnnDestroyActivationDescriptor>;

/// Describes a packed NCHW float tensor of shape (N, C, H, W). @throws cudnnStatus_t
inline void describe(cudnnTensorDescriptor_t descriptor, int4 shape,
                     const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  CheckCudnn(cudnnSetTensor4dDescriptor(descriptor, CUDNN_TENSOR_NCHW, CUDNN_DATA_FLOAT, shape.x,
                                        shape.y, shape.z, shape.w),
             file, line);
}

/// Remembers the shape that a layer is configured for.
class ShapeCache {
 public:
  /// Calls configure() unless `shape` is that of the last call. While configure() runs, no shape is
  /// remembered: if it throws, the next call configures again.
  template <class Configure>
  void update(int4 shape, const Configure& configure) {
    const bool same =
        shape.x == shape_.x && shape.y == shape_.y && shape.z == shape_.z && shape.w == shape_.w;
    if (same) return;
    shape_ = {0, 0, 0, 0};
    configure();
    shape_ = shape;
  }

 private:
  int4 shape_ = {0, 0, 0, 0};
};

/// Descriptors that all objects of a layer without weights share. They are created once and never
/// destroyed, because no GPU call may run in a static destructor.
template <class Descriptors>
Descriptors& classWide() {
  static Descriptors& descriptors = *new Descriptors;
  return descriptors;
}

/// Owns device memory for floats.
class DeviceBuffer {
 public:
  DeviceBuffer() = default;
  DeviceBuffer(const DeviceBuffer&) = delete;
  DeviceBuffer& operator=(const DeviceBuffer&) = delete;
  ~DeviceBuffer() {
    if (data_) cudaFree(data_);
  }

  /// Allocates; the owner must be empty. @throws cudaError
  void allocate(std::size_t floats, const char* file = __builtin_FILE(),
                int line = __builtin_LINE()) {
    CheckCuda(cudaMalloc(reinterpret_cast<void**>(&data_), floats * sizeof(float)), file, line);
  }
  /// Allocates and sets to zero. @throws cudaError
  void allocateZeroed(std::size_t floats, const char* file = __builtin_FILE(),
                      int line = __builtin_LINE()) {
    allocate(floats, file, line);
    CheckCuda(cudaMemset(data_, 0, floats * sizeof(float)), file, line);
  }

  float* get() const { return data_; }

 private:
  float* data_ = nullptr;
};

}  // namespace facezoo
