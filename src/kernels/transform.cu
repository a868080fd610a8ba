#include "kernels/transform.h"

#include "device_code.h"

namespace {

using facezoo::launch;
using facezoo::overGrid;

constexpr unsigned kBlockEdge = 32;

/// out[c, y, x] = in[y, x, c] - mean(index in the interleaved image, c), for one image.
template <class Mean>
__device__ void convert(int4 dims, const unsigned char* in, float* out, const Mean& mean) {
  const int height = dims.y;
  const int width = dims.z;
  const int channels = dims.w;
  for (int c = 0; c < channels; ++c) {
    overGrid(width, height, [=](int x, int y) {
      const int i = (y * width + x) * channels + c;
      out[(c * height + y) * width + x] = static_cast<float>(in[i]) - mean(i, c);
    });
  }
}

__global__ void kernelNCHW2NHWC_4(int4 dims, const unsigned char* in, float* out) {
  convert(dims, in, out, [](int, int) { return 0.0F; });
}

__global__ void kernelNCHW2NHWC_wImgMean_4(int4 dims, const unsigned char* in, float* out,
                                           float* mean) {
  convert(dims, in, out, [=](int i, int) { return mean[i]; });
}

__global__ void kernelNCHW2NHWC_wPMean_4(int4 dims, const unsigned char* in, float* out,
                                         float* mean) {
  convert(dims, in, out, [=](int, int c) { return mean[c]; });
}

unsigned blocksFor(int size) { return (static_cast<unsigned>(size) + kBlockEdge - 1) / kBlockEdge; }

}  // namespace

namespace facezoo {

void convertImages(MeanKind kind, int4 dims, const unsigned char* in, float* out, float* mean) {
  const dim3 block(kBlockEdge, kBlockEdge, 1);
  const dim3 grid(blocksFor(dims.z), blocksFor(dims.y), 1);
  const long long floats = static_cast<long long>(dims.y) * dims.z * dims.w;
  for (int n = 0; n < dims.x; ++n, in += floats, out += floats) {
    switch (kind) {
      case MeanKind::none:
        launch(kernelNCHW2NHWC_4, grid, block, dims, in, out);
        break;
      case MeanKind::image:
        launch(kernelNCHW2NHWC_wImgMean_4, grid, block, dims, in, out, mean);
        break;
      case MeanKind::channel:
        launch(kernelNCHW2NHWC_wPMean_4, grid, block, dims, in, out, mean);
        break;
    }
  }
}

}  // namespace facezoo
