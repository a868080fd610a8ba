#include "GoogLeNet_FAA1ch.h"

#include "heads.h"
#include "inception_v1_trunk.h"
#include "network_table.h"

GoogLeNet_FAA1ch::GoogLeNet_FAA1ch(const char* weightFile, int maxBatch, std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::googLeNetFAA1ch, maxBatch, prefix, {trunk_, eye_, mouth_});
}

GoogLeNet_FAA1ch::GoogLeNet_FAA1ch(GoogLeNet_FAA1ch& other) = default;
GoogLeNet_FAA1ch::~GoogLeNet_FAA1ch() = default;

int GoogLeNet_FAA1ch::Forward(void* images, int batch, float* out1, float* /*out2*/) {
  Tensor x = facezoo::inceptionV1To4d(trunk_, copyIn(images, batch));
  x = facezoo::inceptionV1From4e(trunk_, std::move(x));
  x = facezoo::runHeads(x, {&mouth_, &eye_});
  copyOut(x, out1, cudaMemcpyDeviceToHost);
  return 0;
}
