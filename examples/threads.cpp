// Rates faces by one DexpressionNet, each on a thread of its own.
//   threads WEIGHTS IMAGE...
#include <facezoo.h>
#include <array>
#include <cstdio>
#include <fstream>
#include <future>
#include <vector>
#include "check.h"

using Ratings = std::array<float, 5>;
static Ratings rate(DexpressionNet& net, int device, const char* path) {
  std::array<char, 224 * 224> image;
  if (!std::ifstream(path, std::ios::binary).read(image.data(), image.size()))
    throw std::runtime_error(std::string(path) + ": expected 50176 bytes");
  check(cudaSetDevice(device));  // each thread has its own current device
  void* input;
  check(cudaMalloc(&input, image.size()));
  check(cudaMemcpy(input, image.data(), image.size(), cudaMemcpyHostToDevice));
  Ratings ratings;
  const std::lock_guard<std::recursive_mutex> lock(GPU::getMutex());
  net.Forward(input, 1, ratings.data(), nullptr);
  check(cudaFree(input));
  return ratings;
}
int main(int argc, char** argv) try {
  if (argc < 3) throw std::runtime_error("expected a file of weights and images");
  GPU gpu;
  DexpressionNet net(argv[1], 1, "");  // no other thread runs yet, so it needs no lock
  std::vector<std::future<Ratings>> runs;
  for (int i = 2; i < argc; ++i)
    runs.push_back(std::async(std::launch::async, rate, std::ref(net), gpu.getDeviceID(), argv[i]));
  for (auto& future : runs)
    for (float probability : future.get()) std::printf("%.3f\n", probability);
} catch (const std::exception& e) {
  std::fprintf(stderr, "threads: %s\n", e.what());
  return 1;
} catch (NetworkError) {  // the weight file; the library has printed a line
  return 1;
}
