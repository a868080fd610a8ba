#include "GoogLeNetBN.h"

#include "layers/concat.h"
#include "layers/normalized_convolution.h"
#include "layers/pool.h"
#include "network_table.h"

GoogLeNetBN::GoogLeNetBN(const char* weightFile, int maxBatch, std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::googLeNetBN, maxBatch, prefix,
        {inMean_, conv1_, conv2Reduce_, conv2_, inceptions_, loss1Conv_, loss1Fc_, loss2Conv_,
         loss2Fc_, pca_});
}

GoogLeNetBN::GoogLeNetBN(GoogLeNetBN& other) = default;
GoogLeNetBN::~GoogLeNetBN() = default;

int GoogLeNetBN::Forward(void* images, int batch, float* out1, float* out2) {
  using facezoo::normalizedRelu;
  auto& [inception3a, inception3b, inception3c, inception4a, inception4b, inception4c, inception4d,
         inception4e, inception5a, inception5b] = inceptions_;
  MaxPooling maxPool;
  AveragePooling averagePool;
  Concat concat;

  Tensor x = copyIn(images, batch);
  x = inMean_(x);
  x = normalizedRelu(conv1_, x);
  x = maxPool(x, 3, 2, 0);
  x = normalizedRelu(conv2Reduce_, x);
  x = normalizedRelu(conv2_, x);
  x = maxPool(x, 3, 2, 0);
  x = inception3a(x);
  x = inception3b(x);
  x = inception3c(x);
  x = inception4a(x);
  x = inception4b(x);
  x = inception4c(x);
  x = inception4d(x);
  const Tensor middle = inception4e(x);
  x = averagePool(middle, 5, 3, 0);
  x = normalizedRelu(loss2Conv_, x);
  const Tensor branch = normalizedRelu(loss2Fc_, x);
  x = middle;
  x = inception5a(x);
  x = inception5b(x);
  x = averagePool(x, 7, 1, 0);
  x = concat({branch, x});
  copyNorms(x, out2);  // before the projection, which changes its input
  x = pca_(x);
  copyOut(x, out1, cudaMemcpyDeviceToDevice);
  return 0;
}
