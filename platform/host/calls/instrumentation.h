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

namespace host_device {

/// Statuses of one planned failure, one for each library.
struct InjectedStatus {
  cudaError_t cuda;
  cudnnStatus_t cudnn;
  cublasStatus_t cublas;
  operator cudaError_t() const { return cuda; }
  operator cudnnStatus_t() const { return cudnn; }
  operator cublasStatus_t() const { return cublas; }
};

extern std::atomic<bool> instrumented;

/// Tells the observer and counts the call. Returns the failure planned for it, or null.
const InjectedStatus* record(const char* name, std::initializer_list<std::int64_t> arguments);
/// Tells the observer of a call that only reports; such a call never fails.
void recordReport(const char* name);

void setLastError(cudaError_t status);

/// What a call returns when the host itself runs out of memory or a compute library gives up.
template <class Status>
struct Trouble;
template <>
struct Trouble<cudaError_t> {
  static constexpr cudaError_t outOfMemory = cudaErrorMemoryAllocation;
  static constexpr cudaError_t internal = cudaErrorUnknown;
};
template <>
struct Trouble<cudnnStatus_t> {
  static constexpr cudnnStatus_t outOfMemory = CUDNN_STATUS_ALLOC_FAILED;
  static constexpr cudnnStatus_t internal = CUDNN_STATUS_INTERNAL_ERROR;
};
template <>
struct Trouble<cublasStatus_t> {
  static constexpr cublasStatus_t outOfMemory = CUBLAS_STATUS_ALLOC_FAILED;
  static constexpr cublasStatus_t internal = CUBLAS_STATUS_INTERNAL_ERROR;
};

inline void noteFailure(cudaError_t status) {
  if (status != cudaSuccess) setLastError(status);
}
inline void noteFailure(cudnnStatus_t) {}
inline void noteFailure(cublasStatus_t) {}

/// Runs the body of the interface call `name`; no exception leaves it.
template <class Body>
auto enter(const char* name, std::initializer_list<std::int64_t> arguments, const Body& body)
    -> decltype(body()) {
  using Status = decltype(body());
  Status status = Trouble<Status>::internal;
  const InjectedStatus* injected = nullptr;
  try {
    if (__builtin_expect(instrumented.load(std::memory_order_relaxed), 0)) {
      injected = record(name, arguments);
    }
    status = injected ? static_cast<Status>(*injected) : body();
  } catch (const std::bad_alloc&) {
    status = Trouble<Status>::outOfMemory;
  } catch (...) {
    status = Trouble<Status>::internal;
  }
  noteFailure(status);
  return status;
}

}  // namespace host_device
