// What a C++ program gets from the library, for the tests to compare with.
//   peer NET WEIGHTS MAX_BATCH IMAGES OUTPUT
// runs the images that the file IMAGES holds as raw bytes, MAX_BATCH at a time, and writes the
// results of all, then the norms of all if there are any, as raw floats.
#include "network_list.h"

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

using namespace facezoo;

namespace {

template <class Net>
void run(const NetworkTable& table, char** arguments) {
  const int maxBatch = std::stoi(arguments[1]);
  std::ifstream file(arguments[2], std::ios::binary);
  const std::vector<char> images(std::istreambuf_iterator<char>(file), {});
  const std::size_t imageBytes = std::size_t(table.channels) * table.width * table.height;
  const std::size_t count = images.size() / imageBytes, width = table.outputCount();
  std::vector<float> values(count * width), norms(table.hasNorm ? count : 0);

  GPU gpu;
  Net network(arguments[0], maxBatch, "");
  void* device = nullptr;
  float* results = nullptr;
  cudaMalloc(&device, maxBatch * imageBytes);
  cudaMalloc(&results, maxBatch * width * sizeof(float));
  for (std::size_t first = 0; first < count; first += maxBatch) {
    const std::size_t batch = std::min<std::size_t>(maxBatch, count - first);
    const bool onDevice = table.memory == Results::onDevice;
    float* const out = &values[first * width];
    cudaMemcpy(device, &images[first * imageBytes], batch * imageBytes, cudaMemcpyHostToDevice);
    network.Forward(device, static_cast<int>(batch), onDevice ? results : out,
                    norms.empty() ? nullptr : &norms[first]);
    if (onDevice) cudaMemcpy(out, results, batch * width * sizeof(float), cudaMemcpyDeviceToHost);
  }
  std::ofstream output(arguments[3], std::ios::binary);
  for (const std::vector<float>& floats : {values, norms})
    output.write(reinterpret_cast<const char*>(floats.data()), floats.size() * sizeof(float));
}

}  // namespace

int main(int, char** argv) {
  Networks::map([&](auto entry) {
    if (argv[1] == std::string(entry.table.name))
      run<typename decltype(entry)::Class>(entry.table, argv + 2);
    return 0;
  });
}
