/// @file
/// From a row of a network's table to the layer it describes.
#pragma once

#include "layer.h"
#include "network_table.h"

#include <string>

namespace facezoo {

/// Creates the layer that `row` describes, its weights read under `prefix` + its name. The caller
/// owns the result.
/// @throws what the layer's constructor throws
LayerBase* createLayer(const LayerRow& row, const std::string& prefix,
                       msgpack::v1::object& weights);

}  // namespace facezoo
