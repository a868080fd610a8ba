#include "LCNN29.h"

#include "layers/eltwise.h"
#include "layers/pool.h"
#include "network_table.h"

LCNN29::LCNN29(const char* weightFile, int maxBatch, std::string prefix)
    : Network(weightFile, prefix) {
  build(facezoo::lcnn29, maxBatch, prefix, {layers_});
}

LCNN29::LCNN29(LCNN29& other) = default;
LCNN29::~LCNN29() = default;

int LCNN29::Forward(void* images, int batch, float* out1, float* out2) {
  auto& [convert, conv1, conv2_1, conv2_2, conv3_1, conv3_2, conv4_1, conv4_2, conv5_1, conv5_2,
         block1, block2, block3, block4, block5, block6, block7, block8, block9, block10, fc1] =
      layers_;
  SliceEltwiseMax maxFeatureMap;
  MaxPooling maxPool;
  Tensor x = copyIn(images, batch);
  const auto run = [&](Layer& convolution) {
    x = convolution(x);
    x = maxFeatureMap(x);
  };
  const auto pool = [&] { x = maxPool(x, 2, 2, 0); };

  x = convert(x);
  run(conv1);
  pool();
  x = block1(x);
  run(conv2_1);
  run(conv2_2);
  pool();
  x = block2(x);
  x = block3(x);
  run(conv3_1);
  run(conv3_2);
  pool();
  x = block4(x);
  x = block5(x);
  x = block6(x);
  run(conv4_1);
  run(conv4_2);
  x = block7(x);
  x = block8(x);
  x = block9(x);
  x = block10(x);
  run(conv5_1);
  run(conv5_2);
  pool();
  copyNorms(x, out2);
  x = fc1(x);
  copyOut(x, out1, cudaMemcpyDeviceToDevice);
  return 0;
}
