/// @file
#pragma once

#include "facezoo/layer.h"
#include "kernels/transform.h"
#include "layer_table.h"
#include "layers/handles.h"

#include <string>

/// Turns interleaved 8-bit images into planar floats, minus a mean: one per pixel and channel, one
/// per channel, or none.
///
/// Bytes (N, H, W, C) -> floats (N, C, H, W): out[n, c, y, x] = in[n, y, x, c] - mean.
class TransformNHWC2NCHW : public LayerBase {
 public:
  /// A mean image is read from name + "-0", width × height × channels floats, interleaved like the
  /// input. Means of channels are those of the row and serve inputs of at most 3 channels.
  /// @throws NetworkError 1, cudaError
  TransformNHWC2NCHW(const facezoo::LayerRow& row, const std::string& prefix,
                     msgpack::v1::object& weights) {
    if (row.kind == facezoo::LayerKind::meanImage) {
      kind_ = facezoo::MeanKind::image;
      const int floats = row.width * row.height * row.in;
      mean_.allocateZeroed(floats);
      readWeight(weights, prefix + row.name + "-0", floats * 4, mean_.get());
    } else if (row.kind == facezoo::LayerKind::channelMean) {
      kind_ = facezoo::MeanKind::channel;
      mean_.allocate(3);
      CheckCuda(cudaMemcpy(mean_.get(), row.means, sizeof row.means, cudaMemcpyHostToDevice));
    }
  }

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
  facezoo::MeanKind kind_ = facezoo::MeanKind::none;
};
