/// @file
/// What the convolution layers share: weights, descriptors, and what was configured for the shape
/// of the last input.
#pragma once

#include "convolution_query.h"
#include "facezoo/layer.h"
#include "layer_table.h"
#include "layers/handles.h"

#include <string>

namespace facezoo {

/// Base of the convolution layers: a cross-correlation with a square k × k kernel, and equal stride
/// s and padding p in both directions. p is k / 2, rounded down, in a padded layer, else 0.
///
/// (N, C, H, W) -> (N, K, floor((H + 2p - k) / s) + 1, floor((W + 2p - k) / s) + 1).
class Convolution : public LayerBase {
 public:
  /// Reads name + "-0", filter [out][in][k][k], and, with a bias, name + "-1".
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  Convolution(const LayerRow& row, const std::string& prefix, msgpack::v1::object& weights) {
    const std::string name = prefix + row.name;
    input_.create();
    output_.create();
    biasShape_.create();
    filterShape_.create();
    convolution_.create();
    const int pad = row.padded ? row.kernel / 2 : 0;
    CheckCudnn(cudnnSetConvolution2dDescriptor(convolution_, pad, pad, row.stride, row.stride, 1, 1,
                                               CUDNN_CROSS_CORRELATION, CUDNN_DATA_FLOAT));
    CheckCudnn(cudnnSetFilter4dDescriptor(filterShape_, CUDNN_DATA_FLOAT, CUDNN_TENSOR_NCHW,
                                          row.out, row.in, row.kernel, row.kernel));
    const int filterFloats = row.out * row.in * row.kernel * row.kernel;
    filter_.allocateZeroed(filterFloats);
    readWeight(weights, name + "-0", filterFloats * 4, filter_.get());
    if (!row.hasBias) return;
    bias_.allocateZeroed(row.out);
    readWeight(weights, name + "-1", row.out * 4, bias_.get());
  }

 protected:
  /// Sets descriptors, output shape and algorithm for an input of that shape; makes no call if the
  /// last input had the same.
  void configure(int4 shape) {
    configured_.update(shape, [&] {
      describe(input_, shape);
      CheckCudnn(cudnnGetConvolution2dForwardOutputDim(convolution_, input_, filterShape_,
                                                       &outputShape_.x, &outputShape_.y,
                                                       &outputShape_.z, &outputShape_.w));
      describe(output_, outputShape_);
      describe(biasShape_, {1, outputShape_.y, 1, 1});
      CheckCudnn(cudnnGetConvolutionForwardAlgorithm(
          handle_, input_, filterShape_, convolution_, output_,
          CUDNN_CONVOLUTION_FWD_SPECIFY_WORKSPACE_LIMIT, workspaceSize, &algorithm_));
    });
  }

  // Members are destroyed from the last to the first: the filter first, then the bias, then the
  // descriptors.
  ConvolutionDescriptor convolution_;
  FilterDescriptor filterShape_;
  TensorDescriptor biasShape_;
  TensorDescriptor output_;
  TensorDescriptor input_;
  DeviceBuffer bias_;
  DeviceBuffer filter_;
  cudnnConvolutionFwdAlgo_t algorithm_ = {};
  ShapeCache configured_;
  int4 outputShape_ = {0, 0, 0, 0};
};

}  // namespace facezoo
