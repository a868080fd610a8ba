/// @file
/// From a row of a table to the layer that it describes.
#pragma once

#include "facezoo/layer.h"
#include "layer_table.h"

#include <string>

namespace facezoo {

/// Creates the layer that `row` describes and reads its weights, whose names begin with `prefix` +
/// the row's name. The caller owns the result.
/// @throws what the layer's constructor throws
LayerBase* createLayer(const LayerRow& row, const std::string& prefix,
                       msgpack::v1::object& weights);

}  // namespace facezoo
