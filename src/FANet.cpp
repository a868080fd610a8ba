#include "FANet.h"

#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "network_table.h"

FANet::FANet(const char* weightFile, int maxBatch, std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::faNet, maxBatch, prefix, {layers_});
}

FANet::FANet(FANet& other) = default;
FANet::~FANet() = default;

int FANet::Forward(void* images, int batch, float* out1, float* out2) {
  auto& [inMean, conv1, conv2, conv3, conv4, conv5, fc6, fc7, points] = layers_;
  LocalResponseNormalization lrn;
  MaxPooling maxPool;
  Relu relu;

  Tensor x = copyIn(images, batch);
  x = inMean(x);
  x = conv1(x);
  x = lrn(x, 5, 0.0005F, 0.75F, 2.0F);
  x = maxPool(x, 3, 3, 0);
  x = conv2(x);
  x = maxPool(x, 2, 2, 0);
  x = conv3(x);
  x = conv4(x);
  x = conv5(x);
  x = maxPool(x, 3, 3, 0);
  copyNorms(x, out2);
  x = fc6(x);
  x = relu(x);
  x = fc7(x);
  x = relu(x);
  x = points(x);
  copyOut(x, out1, cudaMemcpyDeviceToHost);
  return 0;
}
