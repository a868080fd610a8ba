#include "layer_factory.h"

#include "layers/cba.h"
#include "layers/inner_product.h"
#include "layers/transform.h"

namespace facezoo {

LayerBase* createLayer(const LayerSpec& spec, const std::string& prefix,
                       msgpack::v1::object& weights) {
  const std::string name = prefix + spec.name;
  switch (spec.kind) {
    case LayerKind::meanImage:
      return new TransformNHWC2NCHW(name, weights, spec.width, spec.height, spec.in);
    case LayerKind::fusedConvolution:
      return new CBA(name, weights, spec.in, spec.out, spec.kernel, spec.stride, spec.padded);
    case LayerKind::innerProduct:
      return new InnerProduct(name, weights, spec.in, spec.out, !spec.hasBias);
  }
  return nullptr;
}

}  // namespace facezoo
