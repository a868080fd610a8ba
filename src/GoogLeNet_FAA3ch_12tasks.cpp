#include "GoogLeNet_FAA3ch_12tasks.h"

#include "heads.h"
#include "inception_v1_trunk.h"
#include "network_table.h"

GoogLeNet_FAA3ch_12tasks::GoogLeNet_FAA3ch_12tasks(const char* weightFile, int maxBatch,
                                                   std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::googLeNetFAA3ch12tasks, maxBatch, prefix,
        {trunk_, eye_, mouth_, head_, hair_, eyeCondition_, mouthOpen_, mouthCorner_, yaw_, pitch_,
         blur_, noise_, luminance_});
}

GoogLeNet_FAA3ch_12tasks::GoogLeNet_FAA3ch_12tasks(GoogLeNet_FAA3ch_12tasks& other) = default;
GoogLeNet_FAA3ch_12tasks::~GoogLeNet_FAA3ch_12tasks() = default;

int GoogLeNet_FAA3ch_12tasks::Forward(void* images, int batch, float* out1, float* /*out2*/) {
  facezoo::InceptionV1Trunk trunk(trunk_);
  facezoo::Heads heads;

  Tensor x = trunk(copyIn(images, batch));
  x = heads(x, {&eye_, &mouth_, &head_, &hair_, &eyeCondition_, &mouthOpen_, &mouthCorner_},
            {&yaw_, &pitch_, &blur_, &noise_, &luminance_});
  copyOut(x, out1, cudaMemcpyDeviceToHost);
  return 0;
}
