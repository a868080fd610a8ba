#include "DexpressionNet.h"

#include "layers/concat.h"
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/softmax.h"
#include "network_table.h"

DexpressionNet::DexpressionNet(const char* weightFile, int maxBatch, std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::dexpressionNet, maxBatch, prefix, layers_);
}

DexpressionNet::DexpressionNet(DexpressionNet& other) = default;
DexpressionNet::~DexpressionNet() = default;

int DexpressionNet::Forward(void* images, int batch, float* out1, float* /*out2*/) {
  auto& [inMean, conv1, conv2a, conv2b, conv2c, conv3a, conv3b, conv3c, mouth, eye] = layers_;
  // Every step drops the tensor it replaces only after its result exists, and no more than four
  // blocks are taken at once: nesting two calls in one step would take a fifth.
  MaxPooling maxPool;
  LocalResponseNormalization lrn;
  Concat concat;
  Softmax softmax;

  Tensor a = inputTensor(batch);
  Tensor b, c;
  CheckCuda(cudaMemcpy(a.base->data, images, inputBytes(batch), cudaMemcpyDeviceToDevice));

  a = inMean(a);
  a = conv1(a);
  a = maxPool(a, 3, 2, 0);
  a = lrn(a, 5, 0.0001F, 0.75F, 1.0F);

  b = conv2a(a);
  b = conv2b(b);
  c = maxPool(a, 3, 1, 1);
  c = conv2c(c);
  a = concat({b, c});
  a = maxPool(a, 3, 2, 0);

  b = conv3a(a);
  b = conv3b(b);
  c = maxPool(a, 3, 1, 1);
  c = conv3c(c);
  a = concat({b, c});
  a = maxPool(a, 3, 2, 0);

  b = mouth(a);
  b = softmax(b);
  c = eye(a);
  c = softmax(c);
  a = concat({b, c});
  CheckCuda(
      cudaMemcpy(out1, a.base->data, sizeof(float) * batch * outputDim, cudaMemcpyDeviceToHost));
  return 0;
}
