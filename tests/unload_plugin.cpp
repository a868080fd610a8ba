// A plugin of a host: only it links the library, which is loaded and unloaded with it.
#include <facezoo.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace {
std::unique_ptr<Network> kept;

void check(cudaError_t status) {
  if (status != cudaSuccess) throw status;
}
}  // namespace

extern "C" void* makeNetwork(const char* weightFile) {
  return static_cast<Network*>(new DexpressionNet(weightFile, 1, ""));
}

extern "C" void callNetwork(void* opaque) {
  Network& network = *static_cast<Network*>(opaque);
  const std::vector<std::uint8_t> image(std::size_t{1} * network.getWidth() * network.getHeight());
  std::vector<float> results(network.getOutputDim());
  void* images = nullptr;
  check(cudaMalloc(&images, image.size()));
  check(cudaMemcpy(images, image.data(), image.size(), cudaMemcpyHostToDevice));
  network.Forward(images, 1, results.data(), nullptr);
  check(cudaFree(images));
}

/// Keeps the network until the plugin is unloaded.
extern "C" void keepNetwork(void* network) { kept.reset(static_cast<Network*>(network)); }

extern "C" void destroyNetwork(void* network) { delete static_cast<Network*>(network); }
