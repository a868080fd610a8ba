/// @file
/// The part of the CUDA runtime that the library calls, on the CPU.
///
/// Names, signatures, enumerators and numeric values are those of CUDA 10.1 and later. A call that
/// is not declared here is not used by the library and does not exist on this platform.
/// Differences from the real runtime are listed in platform/host/README.md. One of them: here the
/// GPU libraries' calls have C++ linkage, so that their symbols are never taken for those of the
/// real libraries, nor the other way round, where a process has both.
#pragma once

#include <cstddef>

// NOLINTBEGIN(bugprone-reserved-identifier): the real runtime's names
#define __host__
#define __device__
#define __global__
// NOLINTEND(bugprone-reserved-identifier)

enum cudaError {
  cudaSuccess = 0,
  cudaErrorInvalidValue = 1,
  cudaErrorMemoryAllocation = 2,
  cudaErrorInitializationError = 3,
  cudaErrorInvalidConfiguration = 9,
  cudaErrorInvalidDeviceFunction = 98,
  cudaErrorNoDevice = 100,
  cudaErrorInvalidDevice = 101,
  cudaErrorLaunchFailure = 719,
  cudaErrorUnknown = 999
};
typedef enum cudaError cudaError_t;

enum cudaMemcpyKind {
  cudaMemcpyHostToHost = 0,
  cudaMemcpyHostToDevice = 1,
  cudaMemcpyDeviceToHost = 2,
  cudaMemcpyDeviceToDevice = 3,
  cudaMemcpyDefault = 4
};

struct alignas(16) int4 {
  int x, y, z, w;
};

struct dim3 {
  unsigned int x, y, z;
  constexpr dim3(unsigned int vx = 1, unsigned int vy = 1, unsigned int vz = 1)
      : x(vx), y(vy), z(vz) {}
};

struct cudaDeviceProp {
  char name[256];
  size_t totalGlobalMem;
  int major;
  int minor;
};

typedef struct CUstream_st* cudaStream_t;

cudaError_t cudaGetDeviceCount(int* count);
cudaError_t cudaGetDevice(int* device);
cudaError_t cudaSetDevice(int device);
cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device);
cudaError_t cudaRuntimeGetVersion(int* version);
cudaError_t cudaDriverGetVersion(int* version);

cudaError_t cudaGetLastError(void);
const char* cudaGetErrorString(cudaError_t status);

cudaError_t cudaMalloc(void** pointer, size_t bytes);
cudaError_t cudaFree(void* pointer);
cudaError_t cudaMemGetInfo(size_t* free, size_t* total);
cudaError_t cudaMemset(void* pointer, int value, size_t bytes);
cudaError_t cudaMemcpy(void* destination, const void* source, size_t bytes, cudaMemcpyKind kind);
cudaError_t cudaMemcpy2D(void* destination, size_t destinationPitch, const void* source,
                         size_t sourcePitch, size_t width, size_t height, cudaMemcpyKind kind);

/// `function` is the entry that platform/host/internal/device_code.h makes for a kernel.
cudaError_t cudaLaunchKernel(const void* function, dim3 grid, dim3 block, void** arguments,
                             size_t sharedBytes, cudaStream_t stream);

template <class T>
inline cudaError_t cudaMalloc(T** pointer, size_t bytes) {
  return cudaMalloc(reinterpret_cast<void**>(pointer), bytes);
}
