/// @file
#pragma once

#include "facezoo/layer.h"
#include "layer_table.h"
#include "layers/handles.h"

#include <string>

/// Batch normalization with stored statistics (Ioffe and Szegedy, "Batch normalization", 2015), per
/// channel: y = gamma · (x - mean) / sqrt(var + epsilon) + beta. The shape stays.
class BatchNormalization : public LayerBase {
 public:
  /// Reads name + "-gamma", "-beta", "-avg_mean" and "-avg_var", each with one float per channel.
  /// @param epsilon at least 1e-5, cuDNN's limit and what every network has
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  BatchNormalization(const facezoo::LayerRow& row, const std::string& prefix,
                     msgpack::v1::object& weights, double epsilon = 1e-5)
      : epsilon_(epsilon) {
    input_.create();
    output_.create();
    parameters_.create();
    const auto read = [&](facezoo::DeviceBuffer& buffer, const char* suffix) {
      buffer.allocate(row.in);
      readWeight(weights, prefix + row.name + suffix, row.in * 4, buffer.get());
    };
    read(scale_, "-gamma");
    read(shift_, "-beta");
    read(mean_, "-avg_mean");
    read(variance_, "-avg_var");
  }

  /// @param in of as many channels as the layer has; not checked
  /// @throws cudnnStatus_t, TensorError 0
  Tensor operator()(const Tensor& in) override {
    const int4 shape = in.base->shape;
    configured_.update(shape, [&] {
      facezoo::describe(input_, shape);
      facezoo::describe(output_, shape);
      CheckCudnn(cudnnDeriveBNTensorDescriptor(parameters_, input_, CUDNN_BATCHNORM_SPATIAL));
    });
    Tensor out(shape);
    CheckCudnn(cudnnBatchNormalizationForwardInference(
        handle_, CUDNN_BATCHNORM_SPATIAL, &facezoo::kOne, &facezoo::kZero, input_, in.base->data,
        output_, out.base->data, parameters_, scale_.get(), shift_.get(), mean_.get(),
        variance_.get(), epsilon_));
    return out;
  }

 private:
  // Members are destroyed from the last to the first: in the order of their creation, but the
  // arrays before the descriptors.
  facezoo::TensorDescriptor parameters_;
  facezoo::TensorDescriptor output_;
  facezoo::TensorDescriptor input_;
  facezoo::DeviceBuffer variance_;
  facezoo::DeviceBuffer mean_;
  facezoo::DeviceBuffer shift_;
  facezoo::DeviceBuffer scale_;
  double epsilon_;
  facezoo::ShapeCache configured_;
};
