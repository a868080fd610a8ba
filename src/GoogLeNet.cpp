#include "GoogLeNet.h"

#include "inception_v1_trunk.h"
#include "layers/concat.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "network_table.h"

#include <utility>

GoogLeNet::GoogLeNet(const char* weightFile, int maxBatch, std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::googLeNet, maxBatch, prefix, {trunk_, loss2Conv_, loss2Fc_, pca_});
}

GoogLeNet::GoogLeNet(GoogLeNet& other) = default;
GoogLeNet::~GoogLeNet() = default;

int GoogLeNet::Forward(void* images, int batch, float* out1, float* out2) {
  facezoo::InceptionV1Trunk trunk(trunk_);
  AveragePooling averagePool;
  Relu relu;
  Concat concat;

  const Tensor middle = trunk.to4d(copyIn(images, batch));
  Tensor x = averagePool(middle, 5, 3, 0);
  x = loss2Conv_(x);
  x = loss2Fc_(x);
  const Tensor branch = relu(x);
  x = middle;
  x = trunk.from4e(std::move(x));
  x = concat({branch, x});
  copyNorms(x, out2);  // before the projection, which changes its input
  x = pca_(x);
  copyOut(x, out1, cudaMemcpyDeviceToDevice);
  return 0;
}
