/// @file
/// What the layers that are made of other layers share.
#pragma once

#include "facezoo/layer.h"
#include "layer_table.h"

#include <string>

namespace facezoo {

/// Base of a layer that is made of `N` layers of one kind. They are created in the order of their
/// rows and destroyed in the reverse.
template <class Part, std::size_t N>
class Block : public LayerBase {
 protected:
  /// @param name of the whole, which is in front of its layers' names
  /// @throws what the layers' constructors throw
  Block(const std::array<LayerRow, N>& rows, const std::string& name,
        msgpack::v1::object& weights) {
    for (std::size_t i = 0; i < N; ++i) layers_[i] = new Part(rows[i], name, weights);
  }

  Layer layers_[N];
};

}  // namespace facezoo
