/// @file
/// What every convolution layer is made of: weights, descriptors, and the configuration that
/// belongs to the last input shape.
#pragma once

#include "convolution_query.h"
#include "facezoo/layer.h"
#include "layers/handles.h"

#include <string>

namespace facezoo {

/// Base of the convolution layers. Square kernel, equal stride and padding in both directions,
/// dilation 1, cross-correlation; output size floor((H + 2p - k) / s) + 1.
class Convolution : public LayerBase {
 public:
  /// @param name full layer name; reads name + "-0", filter [out][in][k][k], and, with a bias,
  ///        name + "-1"
  /// @param padded pads by kernel / 2 (integer division), else not at all
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  Convolution(const std::string& name, msgpack::v1::object& weights, int inChannels,
              int outChannels, int kernel, int stride, bool padded, bool hasBias) {
    input_.create();
    output_.create();
    biasShape_.create();
    filterShape_.create();
    convolution_.create();
    const int pad = padded ? kernel / 2 : 0;
    CheckCudnn(cudnnSetConvolution2dDescriptor(convolution_, pad, pad, stride, stride, 1, 1,
                                               CUDNN_CROSS_CORRELATION, CUDNN_DATA_FLOAT));
    CheckCudnn(cudnnSetFilter4dDescriptor(filterShape_, CUDNN_DATA_FLOAT, CUDNN_TENSOR_NCHW,
                                          outChannels, inChannels, kernel, kernel));
    const int filterFloats = outChannels * inChannels * kernel * kernel;
    filter_.allocateZeroed(filterFloats);
    readWeight(weights, name + "-0", filterFloats * 4, filter_.get());
    if (!hasBias) return;
    bias_.allocateZeroed(outChannels);
    readWeight(weights, name + "-1", outChannels * 4, bias_.get());
  }

 protected:
  /// Brings descriptors, output shape and algorithm up to date with the input's shape; makes no
  /// call if it is the last one.
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

  // Destroyed from the last to the first: weights before descriptors, inputs before the rest.
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
