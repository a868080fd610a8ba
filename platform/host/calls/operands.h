/// @file
/// What the compute calls check of their operands.
#pragma once

#include <cudnn.h>

#include <cstddef>
#include <cstdint>

#include "descriptors.h"
#include "memory/device_memory.h"

namespace host_device {

/// As an observer sees it.
inline std::int64_t address(const void* pointer) {
  return reinterpret_cast<std::intptr_t>(pointer);
}

inline bool isSet(const cudnnTensorStruct* tensor) { return allLive(tensor) && tensor->n > 0; }

inline bool sameShape(const cudnnTensorStruct& a, const cudnnTensorStruct& b) {
  return a.n == b.n && a.c == b.c && a.h == b.h && a.w == b.w;
}

inline bool overlap(const void* a, std::size_t aBytes, const void* b, std::size_t bBytes) {
  const auto aBegin = reinterpret_cast<std::uintptr_t>(a);
  const auto bBegin = reinterpret_cast<std::uintptr_t>(b);
  return aBegin < bBegin + bBytes && bBegin < aBegin + aBytes;
}

/// Most calls do not blend: they take an alpha of 1 and a beta of 0.
inline cudnnStatus_t checkPlain(const void* alpha, const void* beta) {
  if (!alpha || !beta) return CUDNN_STATUS_BAD_PARAM;
  const bool plain =
      *static_cast<const float*>(alpha) == 1.0f && *static_cast<const float*>(beta) == 0.0f;
  return plain ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_NOT_SUPPORTED;
}

/// Whether x and y are set descriptors with as much device memory behind them as they describe.
inline bool areMapped(const cudnnTensorStruct* xDesc, const void* x, const cudnnTensorStruct* yDesc,
                      const void* y) {
  return isSet(xDesc) && isSet(yDesc) && isDevice(x, xDesc->bytes()) && isDevice(y, yDesc->bytes());
}

}  // namespace host_device
