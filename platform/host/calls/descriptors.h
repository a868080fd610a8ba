/// @file
/// The objects behind the opaque handles and descriptors, and the set of those alive.
#pragma once

#include <cublas_v2.h>
#include <cudnn.h>

#include <cstddef>
#include <memory>
#include <vector>

/// Base of every handle and descriptor: what the registry of objects holds.
struct HostObject {
  virtual ~HostObject() = default;
  HostObject* nextSpare = nullptr;  ///< of a destroyed object: another one of its type
};

/// Keeps the scratch memory of a call for the next; as with the real library, one thread at a time
/// uses a handle.
struct cudnnContext : HostObject {
  std::vector<float> poolingScratch, windowCounts;
};
struct cublasContext : HostObject {};

/// Packed NCHW float tensor. Extents are zero until set.
struct cudnnTensorStruct : HostObject {
  int n = 0, c = 0, h = 0, w = 0;
  std::size_t elements() const { return std::size_t{1} * n * c * h * w; }
  std::size_t bytes() const { return elements() * sizeof(float); }
};
struct cudnnFilterStruct : HostObject {
  int k = 0, c = 0, h = 0, w = 0;
  std::size_t bytes() const { return std::size_t{1} * k * c * h * w * sizeof(float); }
};
/// Strides are zero until set.
struct cudnnConvolutionStruct : HostObject {
  int padH = 0, padW = 0, strideH = 0, strideW = 0;
};
struct cudnnPoolingStruct : HostObject {
  cudnnPoolingMode_t mode = CUDNN_POOLING_MAX;
  int windowH = 0, windowW = 0, padH = 0, padW = 0, strideH = 0, strideW = 0;
};
struct cudnnLRNStruct : HostObject {
  unsigned n = 0;
  double alpha = 0, beta = 0, k = 0;
};
struct cudnnActivationStruct : HostObject {
  bool set = false;
  cudnnNanPropagation_t nan = CUDNN_NOT_PROPAGATE_NAN;
};

namespace host_device {

/// Whether `object` was created and not yet destroyed, and is of its pointer's type. Every call
/// checks its handles and descriptors with this before it looks into them.
bool isLive(const HostObject* object);

template <class... T>
bool allLive(const T*... objects) {
  return (... && (isLive(objects) &&
                  dynamic_cast<const T*>(static_cast<const HostObject*>(objects)) != nullptr));
}

}  // namespace host_device
