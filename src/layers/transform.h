/// @file
#pragma once

#include "facezoo/layer.h"
#include "kernels/transform.h"
#include "layers/handles.h"

#include <string>

/// Turns interleaved 8-bit images into planar floats, minus a mean: one per pixel and channel, one
/// per channel, or none.
///
/// Bytes (N, H, W, C) -> floats (N, C, H, W): out[n, c, y, x] = in[n, y, x, c] - mean.
class TransformNHWC2NCHW : public LayerBase {
 public:
  /// Mean image, interleaved like the input.
  /// @param name full layer name; reads name + "-0", width × height × channels floats
  /// @throws NetworkError 1, cudaError
  TransformNHWC2NCHW(std::string name, msgpack::v1::object& weights, int width, int height,
                     int channels)
      : kind_(facezoo::MeanKind::image) {
    const int floats = width * height * channels;
    mean_.allocateZeroed(floats);
    readWeight(weights, name + "-0", floats * 4, mean_.get());
  }

  /// @param channelMean host memory, 3 floats; serves inputs of at most 3 channels
  /// @throws cudaError
  TransformNHWC2NCHW(std::string /*name*/, const float* channelMean)
      : kind_(facezoo::MeanKind::channel) {
    mean_.allocate(3);
    CheckCuda(cudaMemcpy(mean_.get(), channelMean, 3 * sizeof(float), cudaMemcpyHostToDevice));
  }

  explicit TransformNHWC2NCHW(std::string /*name*/) : kind_(facezoo::MeanKind::none) {}

  /// @throws TensorError 0; the launches are not checked
  Tensor operator()(const Tensor& in) override {
    const int4 dims = in.base->shape;
    Tensor out({dims.x, dims.w, dims.y, dims.z});
    facezoo::convertImages(kind_, dims, reinterpret_cast<const unsigned char*>(in.base->data),
                           out.base->data, mean_.get());
    return out;
  }

 private:
  facezoo::DeviceBuffer mean_;
  facezoo::MeanKind kind_;
};
