/// @file
/// What the layers that are made of other layers share.
#pragma once

#include "facezoo/layer.h"
#include "layer_table.h"

#include <string>

namespace facezoo {

/// Base of a layer that is made of `N` layers of one kind, those of `layersOf`. They are created in
/// that order and destroyed in the reverse.
template <class Part, std::size_t N>
class Block : public LayerBase {
 public:
  /// @throws NetworkError 1, cudaError, cudnnStatus_t
  Block(const LayerRow& row, const std::string& prefix, msgpack::v1::object& weights) {
    const std::vector<LayerRow> rows = layersOf(row);
    for (std::size_t i = 0; i < N; ++i) {
      layers_[i] = new Part(rows[i], prefix + row.name, weights);
    }
  }

 protected:
  Layer layers_[N];
};

}  // namespace facezoo
