#include "kernels/transform.h"

#include "device_code.h"

namespace {

using device_code::launch;
using device_code::overGrid;

constexpr unsigned kBlockEdge = 32;

/// out[c, y, x] = in[y, x, c] - mean(index in the interleaved image, c), for one image. A count of
/// channels that is known at compile time lets the host take the interleaved bytes in vectors.
template <int Channels, class Mean>
__device__ void convertPixels(int4 dims, const unsigned char* in, float* out, const Mean& mean) {
  const int width = dims.z;
  const int plane = dims.y * dims.z;
  const int channels = Channels > 0 ? Channels : dims.w;
  overGrid(width, dims.y, channels, [=](int x, int y) {
    const int pixel = y * width + x;
    for (int c = 0; c < channels; ++c) {
      const int i = pixel * channels + c;
      out[c * plane + pixel] = static_cast<float>(in[i]) - mean(i, c);
    }
  });
}

template <class Mean>
__device__ void convert(int4 dims, const unsigned char* in, float* out, const Mean& mean) {
  if (dims.w == 3) {
    convertPixels<3>(dims, in, out, mean);
  } else if (dims.w == 1) {
    convertPixels<1>(dims, in, out, mean);
  } else {
    convertPixels<0>(dims, in, out, mean);
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
