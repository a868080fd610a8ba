#include "client/networks.h"
#include "module.h"

#include <nanobind/stl/string.h>
#include <nanobind/stl/vector.h>

#include <algorithm>
#include <string>
#include <vector>

namespace nb = nanobind;
using namespace facezoo;

namespace {

const char* nameOf(LayerKind kind) {
  switch (kind) {
    case LayerKind::meanImage:
      return "meanImage";
    case LayerKind::channelMean:
      return "channelMean";
    case LayerKind::noMean:
      return "noMean";
    case LayerKind::fusedConvolution:
      return "fusedConvolution";
    case LayerKind::convolution:
      return "convolution";
    case LayerKind::batchNormalization:
      return "batchNormalization";
    case LayerKind::normalizedConvolution:
      return "normalizedConvolution";
    case LayerKind::innerProduct:
      return "innerProduct";
    case LayerKind::projection:
      return "projection";
    case LayerKind::inceptionV1:
      return "inceptionV1";
    case LayerKind::inceptionV3_1:
      return "inceptionV3_1";
    case LayerKind::inceptionV3_2:
      return "inceptionV3_2";
    case LayerKind::inceptionMFM:
      return "inceptionMFM";
  }
  return "";
}

const char* nameOf(WeightRole role) {
  switch (role) {
    case WeightRole::mean:
      return "mean";
    case WeightRole::filter:
      return "filter";
    case WeightRole::bias:
      return "bias";
    case WeightRole::scale:
      return "scale";
    case WeightRole::shift:
      return "shift";
    case WeightRole::variance:
      return "variance";
  }
  return "";
}

nb::dict describe(const InceptionWidths& widths) {
  nb::dict fields;
  fields["conv1x1"] = widths.conv1x1;
  fields["reduce3x3"] = widths.reduce3x3;
  fields["conv3x3"] = widths.conv3x3;
  fields["reduce5x5"] = widths.reduce5x5;
  fields["conv5x5"] = widths.conv5x5;
  fields["poolProjection"] = widths.poolProjection;
  return fields;
}

/// @param prefix the names of the blocks that the layer is part of
nb::dict describe(const LayerRow& row, const std::string& prefix) {
  nb::list means, weights, layers;
  if (row.kind == LayerKind::channelMean)
    for (const float mean : row.means) means.append(mean);
  const std::vector<LayerRow> parts = layersOf(row);
  for (const LayerRow& part : parts) layers.append(describe(part, prefix + row.name));
  if (parts.empty()) {
    forEachWeight(View<LayerRow>{&row, 1}, prefix,
                  [&](const std::string& name, std::size_t, const LayerRow&, WeightRole role) {
                    nb::dict weight;
                    weight["name"] = name;
                    weight["shape"] = weightShape(row, role);
                    weight["role"] = nameOf(role);
                    weights.append(weight);
                  });
  }
  nb::dict fields;
  fields["kind"] = nameOf(row.kind);
  fields["name"] = row.name;
  fields["in"] = row.in;
  fields["out"] = row.out;
  fields["kernel"] = row.kernel;
  fields["stride"] = row.stride;
  fields["pad"] = row.padded ? row.kernel / 2 : 0;
  fields["bias"] = row.hasBias;
  fields["width"] = row.width;
  fields["height"] = row.height;
  fields["edge"] = row.edge;
  fields["means"] = means;
  fields["max_pool"] = row.maxPool;
  fields["widths"] = describe(row.widths);
  fields["weights"] = weights;
  fields["layers"] = layers;
  return fields;
}

nb::dict table(const std::string& name) {
  const std::vector<std::string> names = networkNames();
  if (std::find(names.begin(), names.end(), name) == names.end()) {
    throw nb::value_error(("name: expected one of networks(), found " + name).c_str());
  }
  const NetworkTable& network = *findNetwork(name).table;
  nb::list outputs, layers;
  for (const OutputGroup& group : network.outputs)
    outputs.append(nb::make_tuple(group.name, group.count));
  for (const LayerRow& row : network.layers) layers.append(describe(row, ""));
  nb::dict fields;
  fields["name"] = network.name;
  fields["channels"] = network.channels;
  fields["height"] = network.height;
  fields["width"] = network.width;
  fields["output_dim"] = network.outputDim;
  fields["has_norm"] = network.hasNorm;
  fields["outputs"] = outputs;
  fields["results"] = network.memory == Results::onDevice ? "device" : "host";
  fields["layers"] = layers;
  return fields;
}

}  // namespace

void bindTables(nb::module_& module) {
  module.def("networks", &networkNames, "The names of the eight networks.");
  module.def("table", &table, nb::arg("name"), R"(What a network is made of, as the library has it.

Args:
    name: One of ``networks()``.

Returns:
    A dictionary of the input's ``channels``, ``height`` and ``width``; ``outputs``, a list of the
    groups of results and how many values each has; ``results``, the memory ("host" or "device")
    where the library writes them; and ``layers``, the layers with weights in the order of their
    creation. A layer's ``weights`` are the arrays that it reads itself; those of a block are in its
    ``layers``. Names of weights have no prefix of the network's.

Raises:
    ValueError: There is no network of that name.
)");
}
