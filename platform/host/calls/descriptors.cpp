#include "descriptors.h"

#include "host_device.h"
#include "instrumentation.h"
#include "memory/device_memory.h"

#include <iterator>
#include <limits>
#include <mutex>
#include <tuple>
#include <unordered_map>
#include <utility>

using namespace host_device;

namespace {

enum class ObjectKind { handle, descriptor };

struct State {
  ObjectKind kind;
  bool live;
};

struct Objects {
  std::mutex mutex;
  std::unordered_map<const HostObject*, State> states;
};

Objects& objects() {
  static Objects& instance = *new Objects;
  return instance;
}

/// A list of destroyed objects of a type, which are used again: layers create and destroy
/// descriptors in every call, which should not allocate. Guarded by the mutex.
template <class T>
HostObject* spares = nullptr;

template <class T>
bool createObject(T** handle, ObjectKind kind) {
  if (handle == nullptr) return false;
  Objects& o = objects();
  const std::lock_guard<std::mutex> lock(o.mutex);
  if (spares<T> == nullptr) {
    auto object = std::make_unique<T>();
    o.states.emplace(object.get(), State{kind, true});
    *handle = object.release();
    return true;
  }
  auto* object = static_cast<T*>(spares<T>);
  spares<T> = object->nextSpare;
  *object = T();
  o.states.at(object).live = true;
  *handle = object;
  return true;
}

template <class T>
bool destroyObject(T* handle) {
  if (!allLive(handle)) return false;
  Objects& o = objects();
  const std::lock_guard<std::mutex> lock(o.mutex);
  o.states.at(handle).live = false;
  handle->nextSpare = std::exchange(spares<T>, handle);
  return true;
}

cudnnStatus_t goodIf(bool good) { return good ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_BAD_PARAM; }

template <class T>
cudnnStatus_t createDescriptor(const char* name, T** descriptor) {
  return enter(name, {}, [&] { return goodIf(createObject(descriptor, ObjectKind::descriptor)); });
}

template <class T>
cudnnStatus_t destroyDescriptor(const char* name, T* descriptor) {
  // As in the real library, destroying nothing is no error.
  return enter(name, {},
               [&] { return goodIf(descriptor == nullptr || destroyObject(descriptor)); });
}

/// Four positive extents whose product can be indexed with 32-bit integers, as kernels do.
bool validExtents(int a, int b, int c, int d) {
  if (a <= 0 || b <= 0 || c <= 0 || d <= 0) return false;
  std::int64_t elements = a;
  for (const int extent : {b, c, d}) {
    elements *= extent;
    if (elements > std::numeric_limits<int>::max()) return false;
  }
  return true;
}

}  // namespace

namespace host_device {

bool isLive(const HostObject* object) {
  const std::lock_guard<std::mutex> lock(objects().mutex);
  const auto found = objects().states.find(object);
  return found != objects().states.end() && found->second.live;
}

Live live() {
  const AllocationCount memory = liveAllocations();
  Live count{memory.allocations, memory.bytes, 0, 0};
  const std::lock_guard<std::mutex> lock(objects().mutex);
  for (const auto& [object, state] : objects().states) {
    if (state.live) ++(state.kind == ObjectKind::handle ? count.handles : count.descriptors);
  }
  return count;
}

}  // namespace host_device

size_t cudnnGetVersion() {
  recordReport("cudnnGetVersion");
  return 7000;
}

const char* cudnnGetErrorString(cudnnStatus_t status) {
  recordReport("cudnnGetErrorString");
  constexpr const char* names[] = {"CUDNN_STATUS_SUCCESS",          "CUDNN_STATUS_NOT_INITIALIZED",
                                   "CUDNN_STATUS_ALLOC_FAILED",     "CUDNN_STATUS_BAD_PARAM",
                                   "CUDNN_STATUS_INTERNAL_ERROR",   "CUDNN_STATUS_INVALID_VALUE",
                                   "CUDNN_STATUS_ARCH_MISMATCH",    "CUDNN_STATUS_MAPPING_ERROR",
                                   "CUDNN_STATUS_EXECUTION_FAILED", "CUDNN_STATUS_NOT_SUPPORTED"};
  const auto index = static_cast<std::size_t>(status);
  return index < std::size(names) ? names[index] : "CUDNN_UNKNOWN_STATUS";
}

cudnnStatus_t cudnnCreate(cudnnHandle_t* handle) {
  return enter("cudnnCreate", {}, [&] { return goodIf(createObject(handle, ObjectKind::handle)); });
}

cudnnStatus_t cudnnDestroy(cudnnHandle_t handle) {
  return enter("cudnnDestroy", {},
               [&] { return goodIf(handle == nullptr || destroyObject(handle)); });
}

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle) {
  return enter("cublasCreate_v2", {}, [&] {
    return createObject(handle, ObjectKind::handle) ? CUBLAS_STATUS_SUCCESS
                                                    : CUBLAS_STATUS_INVALID_VALUE;
  });
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle) {
  return enter("cublasDestroy_v2", {}, [&] {
    return destroyObject(handle) ? CUBLAS_STATUS_SUCCESS : CUBLAS_STATUS_NOT_INITIALIZED;
  });
}

cublasStatus_t cublasGetProperty(libraryPropertyType type, int* value) {
  recordReport("cublasGetProperty");
  if (value == nullptr) return CUBLAS_STATUS_INVALID_VALUE;
  *value = type == MAJOR_VERSION ? 10 : 0;
  return CUBLAS_STATUS_SUCCESS;
}

// Descriptors of all kinds are created and destroyed alike.
#define DESCRIPTOR(kind)                                                               \
  cudnnStatus_t cudnnCreate##kind##Descriptor(cudnn##kind##Descriptor_t* descriptor) { \
    return createDescriptor("cudnnCreate" #kind "Descriptor", descriptor);             \
  }                                                                                    \
  cudnnStatus_t cudnnDestroy##kind##Descriptor(cudnn##kind##Descriptor_t descriptor) { \
    return destroyDescriptor("cudnnDestroy" #kind "Descriptor", descriptor);           \
  }
DESCRIPTOR(Tensor)
DESCRIPTOR(Filter)
DESCRIPTOR(Convolution)
DESCRIPTOR(Pooling)
DESCRIPTOR(LRN)
DESCRIPTOR(Activation)
#undef DESCRIPTOR

cudnnStatus_t cudnnSetTensor4dDescriptor(cudnnTensorDescriptor_t descriptor,
                                         cudnnTensorFormat_t format, cudnnDataType_t type, int n,
                                         int c, int h, int w) {
  return enter("cudnnSetTensor4dDescriptor", {n, c, h, w}, [&] {
    if (!allLive(descriptor) || format != CUDNN_TENSOR_NCHW || type != CUDNN_DATA_FLOAT ||
        !validExtents(n, c, h, w)) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    std::tie(descriptor->n, descriptor->c, descriptor->h, descriptor->w) = std::tie(n, c, h, w);
    return CUDNN_STATUS_SUCCESS;
  });
}

cudnnStatus_t cudnnSetFilter4dDescriptor(cudnnFilterDescriptor_t descriptor, cudnnDataType_t type,
                                         cudnnTensorFormat_t format, int k, int c, int h, int w) {
  return enter("cudnnSetFilter4dDescriptor", {k, c, h, w}, [&] {
    if (!allLive(descriptor) || format != CUDNN_TENSOR_NCHW || type != CUDNN_DATA_FLOAT ||
        !validExtents(k, c, h, w)) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    std::tie(descriptor->k, descriptor->c, descriptor->h, descriptor->w) = std::tie(k, c, h, w);
    return CUDNN_STATUS_SUCCESS;
  });
}

cudnnStatus_t cudnnSetConvolution2dDescriptor(cudnnConvolutionDescriptor_t descriptor, int padH,
                                              int padW, int strideH, int strideW, int dilationH,
                                              int dilationW, cudnnConvolutionMode_t mode,
                                              cudnnDataType_t computeType) {
  return enter("cudnnSetConvolution2dDescriptor", {padH, padW, strideH, strideW}, [&] {
    if (!allLive(descriptor) || padH < 0 || padW < 0 || strideH <= 0 || strideW <= 0 ||
        dilationH <= 0 || dilationW <= 0 || computeType != CUDNN_DATA_FLOAT) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    if (mode != CUDNN_CROSS_CORRELATION || dilationH != 1 || dilationW != 1) {
      return CUDNN_STATUS_NOT_SUPPORTED;
    }
    std::tie(descriptor->padH, descriptor->padW) = std::tie(padH, padW);
    std::tie(descriptor->strideH, descriptor->strideW) = std::tie(strideH, strideW);
    return CUDNN_STATUS_SUCCESS;
  });
}

cudnnStatus_t cudnnSetPooling2dDescriptor(cudnnPoolingDescriptor_t descriptor,
                                          cudnnPoolingMode_t mode, cudnnNanPropagation_t nan,
                                          int windowH, int windowW, int padH, int padW, int strideH,
                                          int strideW) {
  return enter(
      "cudnnSetPooling2dDescriptor", {mode, windowH, windowW, padH, padW, strideH, strideW}, [&] {
        if (!allLive(descriptor) || windowH <= 0 || windowW <= 0 || padH < 0 || padW < 0 ||
            padH >= windowH || padW >= windowW || strideH <= 0 || strideW <= 0) {
          return CUDNN_STATUS_BAD_PARAM;
        }
        if ((mode != CUDNN_POOLING_MAX && mode != CUDNN_POOLING_AVERAGE_COUNT_INCLUDE_PADDING) ||
            nan != CUDNN_PROPAGATE_NAN) {
          return CUDNN_STATUS_NOT_SUPPORTED;
        }
        descriptor->mode = mode;
        std::tie(descriptor->windowH, descriptor->windowW) = std::tie(windowH, windowW);
        std::tie(descriptor->padH, descriptor->padW) = std::tie(padH, padW);
        std::tie(descriptor->strideH, descriptor->strideW) = std::tie(strideH, strideW);
        return CUDNN_STATUS_SUCCESS;
      });
}

cudnnStatus_t cudnnSetLRNDescriptor(cudnnLRNDescriptor_t descriptor, unsigned n, double alpha,
                                    double beta, double k) {
  return enter("cudnnSetLRNDescriptor", {n}, [&] {
    // The limits that the real library documents for its parameters.
    if (!allLive(descriptor) || n < 1 || n > 16 || beta < 0.01 || k < 1e-5) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    descriptor->n = n;
    descriptor->alpha = alpha;
    descriptor->beta = beta;
    descriptor->k = k;
    return CUDNN_STATUS_SUCCESS;
  });
}

cudnnStatus_t cudnnSetActivationDescriptor(cudnnActivationDescriptor_t descriptor,
                                           cudnnActivationMode_t mode, cudnnNanPropagation_t nan,
                                           double /*coefficient*/) {
  return enter("cudnnSetActivationDescriptor", {mode, nan}, [&] {
    if (!allLive(descriptor)) return CUDNN_STATUS_BAD_PARAM;
    if (mode != CUDNN_ACTIVATION_RELU) return CUDNN_STATUS_NOT_SUPPORTED;
    descriptor->set = true;
    descriptor->nan = nan;
    return CUDNN_STATUS_SUCCESS;
  });
}
