#include "layer_factory.h"

#include "layers/batch_norm.h"
#include "layers/cba.h"
#include "layers/conv.h"
#include "layers/inception_mfm.h"
#include "layers/inception_v1.h"
#include "layers/inception_v3.h"
#include "layers/inner_product.h"
#include "layers/normalized_convolution.h"
#include "layers/projection.h"
#include "layers/transform.h"

namespace facezoo {

LayerBase* createLayer(const LayerRow& row, const std::string& prefix,
                       msgpack::v1::object& weights) {
  switch (row.kind) {
    case LayerKind::meanImage:
    case LayerKind::channelMean:
    case LayerKind::noMean:
      return new TransformNHWC2NCHW(row, prefix, weights);
    case LayerKind::fusedConvolution:
      return new CBA(row, prefix, weights);
    case LayerKind::convolution:
      return new Convolution2D(row, prefix, weights);
    case LayerKind::batchNormalization:
      return new BatchNormalization(row, prefix, weights);
    case LayerKind::normalizedConvolution:
      return new NormalizedConvolution(row, prefix, weights);
    case LayerKind::innerProduct:
      return new InnerProduct(row, prefix, weights);
    case LayerKind::projection:
      return new Projection(row, prefix, weights);
    case LayerKind::inceptionV1:
      return new InceptionV1(row, prefix, weights);
    case LayerKind::inceptionV3_1:
      return new InceptionV3_1(row, prefix, weights);
    case LayerKind::inceptionV3_2:
      return new InceptionV3_2(row, prefix, weights);
    case LayerKind::inceptionMFM:
      break;  // after the switch, so that every path returns
  }
  return new InceptionMFM(row, prefix, weights);
}

}  // namespace facezoo
