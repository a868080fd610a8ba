/// @file
/// From rows of a table to the layers they describe.
#pragma once

#include "facezoo/layer.h"
#include "layer_table.h"

#include <string>

namespace facezoo {

/// Creates the layer that `row` describes, its weights read under `prefix` + its name. The caller
/// owns the result.
/// @throws what the layer's constructor throws
LayerBase* createLayer(const LayerRow& row, const std::string& prefix,
                       msgpack::v1::object& weights);

/// Base of the layers that are made of others: creates them in order, destroys them in reverse.
template <std::size_t N>
class Block : public LayerBase {
 protected:
  Block(const std::array<LayerRow, N>& rows, const std::string& prefix,
        msgpack::v1::object& weights) {
    for (std::size_t i = 0; i < N; ++i) layers_[i] = createLayer(rows[i], prefix, weights);
  }

  Layer layers_[N];
};

}  // namespace facezoo
