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
  facezoo::InceptionV1Trunk trunk(trunk_);
  facezoo::Heads heads;

  Tensor x = trunk(copyIn(images, batch));
  x = heads(x, {&mouth_, &eye_});
  copyOut(x, out1, cudaMemcpyDeviceToHost);
  return 0;
}
