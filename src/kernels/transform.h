/// @file
/// Input conversion: the launcher of its kernels.
#pragma once

#include <cuda_runtime.h>

namespace facezoo {

enum class MeanKind { none, image, channel };

/// Converts `dims.x` images, one launch each, on the default stream; the launches are not checked.
///
/// @param dims (N, H, W, C)
/// @param in device memory, N × H × W × C interleaved bytes
/// @param out device memory, N × C × H × W planar floats
/// @param mean device memory: H × W × C interleaved floats, C floats, or unused
void convertImages(MeanKind kind, int4 dims, const unsigned char* in, float* out, float* mean);

}  // namespace facezoo
