#include "DexpressionNet.h"

#include "heads.h"
#include "layers/concat.h"
#include "layers/lrn.h"
#include "layers/pool.h"
#include "network_table.h"

DexpressionNet::DexpressionNet(const char* weightFile, int maxBatch, std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::dexpressionNet, maxBatch, prefix, {trunk_, mouth_, eye_});
}

DexpressionNet::DexpressionNet(DexpressionNet& other) = default;
DexpressionNet::~DexpressionNet() = default;

int DexpressionNet::Forward(void* images, int batch, float* out1, float* /*out2*/) {
  auto& [inMean, conv1, conv2a, conv2b, conv2c, conv3a, conv3b, conv3c] = trunk_;
  MaxPooling maxPool;
  LocalResponseNormalization lrn;
  Concat concat;
  facezoo::Heads heads;
  const auto branches = [&](const Tensor& in, Layer& reduce, Layer& conv, Layer& project) {
    Tensor a = reduce(in);
    a = conv(a);
    Tensor b = maxPool(in, 3, 1, 1);
    b = project(b);
    return concat({a, b});
  };

  Tensor x = copyIn(images, batch);
  x = inMean(x);
  x = conv1(x);
  x = maxPool(x, 3, 2, 0);
  x = lrn(x, 5, 0.0001F, 0.75F, 1.0F);
  x = branches(x, conv2a, conv2b, conv2c);
  x = maxPool(x, 3, 2, 0);
  x = branches(x, conv3a, conv3b, conv3c);
  x = maxPool(x, 3, 2, 0);
  x = heads(x, {&mouth_, &eye_});
  copyOut(x, out1, cudaMemcpyDeviceToHost);
  return 0;
}
