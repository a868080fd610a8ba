/// @file
#pragma once

#include "layers/batch_norm.h"
#include "layers/conv.h"
#include "layers/relu.h"

#include <string>

namespace facezoo {

/// Runs a layer with weights, its batch normalization and a ReLU.
/// @param pair holds the layer and the normalization
/// @throws what the layers throw
inline Tensor normalizedRelu(Layer (&pair)[2], const Tensor& in) {
  auto& [weighted, normalization] = pair;
  Tensor x = weighted(in);
  x = normalization(x);
  return Relu()(x);
}

}  // namespace facezoo

/// Convolution without bias, batch normalization, ReLU; the shape is that of `Convolution2D`.
class NormalizedConvolution : public LayerBase {
 public:
  /// Reads what the two layers read, the normalization under name + "/bn".
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  NormalizedConvolution(const facezoo::LayerRow& row, const std::string& prefix,
                        msgpack::v1::object& weights) {
    const auto [convolution, normalization] = facezoo::layersOfNormalizedConvolution(row);
    const std::string name = prefix + row.name;
    layers_[0] = new Convolution2D(convolution, name, weights);
    layers_[1] = new BatchNormalization(normalization, name, weights);
  }

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override { return facezoo::normalizedRelu(layers_, in); }

 private:
  Layer layers_[2];
};
