// The GPU libraries report failures by their results; the examples throw them, as facezoo does.
#pragma once
#include <cuda_runtime.h>

inline void check(cudaError_t status) {
  if (status != cudaSuccess) throw status;
}
