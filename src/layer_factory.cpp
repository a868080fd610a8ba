#include "layer_factory.h"

#include "layers/batch_norm.h"
#include "layers/cba.h"
#include "layers/conv.h"
#include "layers/inception_mfm.h"
#include "layers/inception_v1.h"
#include "layers/inception_v3.h"
#include "layers/inner_product.h"
#include "layers/projection.h"
#include "layers/transform.h"

namespace facezoo {

LayerBase* createLayer(const LayerRow& row, const std::string& prefix,
                       msgpack::v1::object& weights) {
  constexpr double kEpsilon = 1e-5;  // of every batch normalization
  const std::string name = prefix + row.name;
  const auto& c = row.branches;
  switch (row.kind) {
    case LayerKind::meanImage:
      return new TransformNHWC2NCHW(name, weights, row.width, row.height, row.in);
    case LayerKind::channelMean:
      return new TransformNHWC2NCHW(name, row.means);
    case LayerKind::noMean:
      return new TransformNHWC2NCHW(name);
    case LayerKind::fusedConvolution:
      return new CBA(name, weights, row.in, row.out, row.kernel, row.stride, row.padded);
    case LayerKind::convolution:
      return new Convolution2D(name, weights, row.in, row.out, row.kernel, row.stride, row.padded,
                               !row.hasBias);
    case LayerKind::batchNormalization:
      return new BatchNormalization(name, weights, row.in, kEpsilon);
    case LayerKind::innerProduct:
      return new InnerProduct(name, weights, row.in, row.out, !row.hasBias);
    case LayerKind::projection:
      return new Projection(name, weights, row.out);
    case LayerKind::inceptionV1:
      return new InceptionV1(name, weights, row.in, c[0], c[1], c[2], c[3], c[4], c[5]);
    case LayerKind::inceptionV3_1:
      return new InceptionV3_1(name, weights, row.in, c[0], c[1], c[2], c[3], c[4], c[5],
                               row.maxPool);
    case LayerKind::inceptionV3_2:
      return new InceptionV3_2(name, weights, row.in, c[0], c[1], c[2]);
    case LayerKind::inceptionMFM:
      break;  // the last kind is what is left
  }
  return new InceptionMFM(name, weights, row.in);
}

}  // namespace facezoo
