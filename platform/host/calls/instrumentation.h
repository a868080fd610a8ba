/// @file
/// Every call of the interface runs inside `enter`, where observers see it and planned failures
/// happen. When nobody observes, that costs one predictable branch.
#pragma once

#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cudnn.h>

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <new>
#include <type_traits>

namespace host_device {

/// A failure, as each library says it.
struct Statuses {
  cudaError_t cuda;
  cudnnStatus_t cudnn;
  cublasStatus_t cublas;
  operator cudaError_t() const { return cuda; }
  operator cudnnStatus_t() const { return cudnn; }
  operator cublasStatus_t() const { return cublas; }
};

extern std::atomic<bool> instrumented;

/// Tells the observer and counts the call. Returns the failure planned for it, or null.
const Statuses* record(const char* name, std::initializer_list<std::int64_t> arguments);
/// Tells the observer of a call that only reports; such a call never fails.
void recordReport(const char* name);

void setLastError(cudaError_t status);

/// What a call returns when the host itself runs out of memory or a compute library gives up.
constexpr Statuses kOutOfMemory = {cudaErrorMemoryAllocation, CUDNN_STATUS_ALLOC_FAILED,
                                   CUBLAS_STATUS_ALLOC_FAILED};
constexpr Statuses kInternal = {cudaErrorUnknown, CUDNN_STATUS_INTERNAL_ERROR,
                                CUBLAS_STATUS_INTERNAL_ERROR};

/// Runs the body of the interface call `name`; no exception leaves it.
template <class Body>
auto enter(const char* name, std::initializer_list<std::int64_t> arguments, const Body& body)
    -> decltype(body()) {
  using Status = decltype(body());
  Status status = kInternal;
  const Statuses* planned = nullptr;
  try {
    if (__builtin_expect(instrumented.load(std::memory_order_relaxed), 0)) {
      planned = record(name, arguments);
    }
    status = planned ? static_cast<Status>(*planned) : body();
  } catch (const std::bad_alloc&) {
    status = kOutOfMemory;
  } catch (...) {
    status = kInternal;
  }
  if constexpr (std::is_same_v<Status, cudaError_t>) {
    if (status != cudaSuccess) setLastError(status);
  }
  return status;
}

}  // namespace host_device
