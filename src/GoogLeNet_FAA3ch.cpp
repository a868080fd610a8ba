#include "GoogLeNet_FAA3ch.h"

#include "heads.h"
#include "inception_v1_trunk.h"
#include "network_table.h"

GoogLeNet_FAA3ch::GoogLeNet_FAA3ch(const char* weightFile, int maxBatch, std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::googLeNetFAA3ch, maxBatch, prefix, {trunk_, eye_, mouth_});
}

GoogLeNet_FAA3ch::GoogLeNet_FAA3ch(GoogLeNet_FAA3ch& other) = default;
GoogLeNet_FAA3ch::~GoogLeNet_FAA3ch() = default;

int GoogLeNet_FAA3ch::Forward(void* images, int batch, float* out1, float* /*out2*/) {
  facezoo::InceptionV1Trunk trunk(trunk_);
  facezoo::Heads heads;

  Tensor x = trunk(copyIn(images, batch));
  x = heads(x, {&mouth_, &eye_});
  copyOut(x, out1, cudaMemcpyDeviceToHost);
  return 0;
}
