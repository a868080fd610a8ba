// Rates a face by the twelve heads of GoogLeNet_FAA3ch_12tasks.
//   heads WEIGHTS IMAGE
#include <facezoo.h>
#include <cstdio>
#include <fstream>
#include "check.h"

static const struct {
  const char* name;
  int values;  // as many classes have probabilities; a single value is a measure
} heads[] = {{"eye", 3},           {"mouth", 2},      {"head", 2},         {"hair", 2},
             {"eye_condition", 4}, {"mouth_open", 4}, {"mouth_corner", 4}, {"yaw", 1},
             {"pitch", 1},         {"blur", 1},       {"noise", 1},        {"luminance", 1}};

int main(int argc, char** argv) try {
  static char image[224 * 224 * 3];
  if (argc != 3 || !std::ifstream(argv[2], std::ios::binary).read(image, sizeof image)) {
    std::fprintf(stderr, "usage: heads WEIGHTS IMAGE (%zu bytes)\n", sizeof image);
    return 2;
  }
  GPU gpu;
  GoogLeNet_FAA3ch_12tasks net(argv[1], 1, "");
  void* device;
  check(cudaMalloc(&device, sizeof image));
  check(cudaMemcpy(device, image, sizeof image, cudaMemcpyHostToDevice));
  float results[26];
  net.Forward(device, 1, results, nullptr);
  check(cudaFree(device));

  const float* result = results;
  for (const auto& head : heads) {
    std::printf("%s", head.name);
    for (int i = 0; i < head.values; ++i) std::printf(" %.3f", *result++);
    std::printf("\n");
  }
} catch (NetworkError) {  // the weight file; anything else ends the program with its type's name
  return 1;
}
