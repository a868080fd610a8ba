/// @file
#pragma once

#include "layers/batch_norm.h"
#include "layers/conv.h"
#include "layers/relu.h"

#include <string>

namespace facezoo {

/// Runs a layer and its batch normalization, which are the pair, and a ReLU.
/// @throws what the layers throw
inline Tensor normalizedRelu(Layer (&pair)[2], const Tensor& in) {
  Tensor x = pair[0](in);
  x = pair[1](x);
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
    const std::vector<facezoo::LayerRow> rows = facezoo::layersOf(row);
    layers_[0] = new Convolution2D(rows[0], prefix + row.name, weights);
    layers_[1] = new BatchNormalization(rows[1], prefix + row.name, weights);
  }

  /// @throws what its layers throw
  Tensor operator()(const Tensor& in) override { return facezoo::normalizedRelu(layers_, in); }

 private:
  Layer layers_[2];
};
