/// @file
/// Element-wise maximum and sum: the launchers of their kernels.
#pragma once

namespace facezoo {

// Each runs over `height` rows of `width` elements in one launch on the default stream, which is
// not checked. Pointers are device memory; strides are the distance between rows in floats.

/// out = b where a < b, else a: a NaN in a is kept, one in b is not.
void maxRows(float* a, float* b, int inputStride, int width, int height, float* out,
             int outputStride);

/// out = a + b.
void sumRows(float* a, float* b, int inputStride, int width, int height, float* out,
             int outputStride);

}  // namespace facezoo
