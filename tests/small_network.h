/// @file
/// A network of a few layers, for tests that need thousands of constructions.
#pragma once

#include "facezoo/network.h"
#include "layers/softmax.h"
#include "network_table.h"

#include <string>

namespace facezoo::test {

inline constexpr LayerRow smallLayers[] = {
    meanImage(4, 4, 1),
    fusedConvolution("conv1", 1, 2, 3, 1, samePadding),
    batchNormalization("conv1/bn", 2),
    innerProduct("fc1", 2 * 4 * 4, 3, withBias),
};
inline constexpr OutputGroup smallOutput[] = {{"classes", 3}};
inline constexpr NetworkTable smallNetwork = {
    {1, 4, 4},         {2 * 4 * 4 * 4, 2}, "SmallNetwork",  3,
    view(smallLayers), view(smallOutput),  Results::onHost, withoutNorm};

/// Asks for `blocks` pool blocks, which may be more than it takes.
template <int blocks>
class SmallNetworkOf : public Network {
 public:
  SmallNetworkOf(const char* weightFile, int maxBatch, std::string prefix)
      : Network(weightFile, prefix) {
    NetworkTable table = smallNetwork;
    table.bufferCount = blocks;
    build(table, maxBatch, prefix, {layers_});
  }
  SmallNetworkOf(SmallNetworkOf& other) = default;

  int Forward(void* images, int batch, float* out1, float* /*out2*/) override {
    Softmax softmax;
    Tensor x = copyIn(images, batch);
    for (Layer& layer : layers_) x = layer(x);
    x = softmax(x);
    copyOut(x, out1, cudaMemcpyDeviceToHost);
    return 0;
  }

 private:
  Layer layers_[4];
};

using SmallNetwork = SmallNetworkOf<smallNetwork.bufferCount>;

}  // namespace facezoo::test
