#include "layer_factory.h"

#include "layers/cba.h"
#include "layers/inner_product.h"
#include "layers/transform.h"

namespace facezoo {

LayerBase* createLayer(const LayerRow& row, const std::string& prefix,
                       msgpack::v1::object& weights) {
  const std::string name = prefix + row.name;
  switch (row.kind) {
    case LayerKind::meanImage:
      return new TransformNHWC2NCHW(name, weights, row.width, row.height, row.in);
    case LayerKind::fusedConvolution:
      return new CBA(name, weights, row.in, row.out, row.kernel, row.stride, row.padded);
    case LayerKind::innerProduct:
      return new InnerProduct(name, weights, row.in, row.out, !row.hasBias);
  }
  return nullptr;
}

}  // namespace facezoo
