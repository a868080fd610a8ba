// Compares two faces by the descriptors that LCNN29 leaves in device memory.
//   descriptors WEIGHTS IMAGE IMAGE
#include <facezoo.h>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>
#include "check.h"

int main(int argc, char** argv) try {
  constexpr int length = 512;
  static char images[2][128 * 128 * 3];
  for (int i = 0; i < 2; ++i)
    if (argc != 4 ||
        !std::ifstream(argv[2 + i], std::ios::binary).read(images[i], sizeof *images)) {
      std::fprintf(stderr, "usage: descriptors WEIGHTS IMAGE IMAGE (%zu bytes)\n", sizeof *images);
      return 2;
    }
  GPU gpu;
  LCNN29 net(argv[1], 2, "");
  void *input, *output;
  check(cudaMalloc(&input, sizeof images));
  check(cudaMalloc(&output, 2 * length * sizeof(float)));
  check(cudaMemcpy(input, images, sizeof images, cudaMemcpyHostToDevice));
  float norms[2], descriptors[2][length];
  net.Forward(input, 2, static_cast<float*>(output), norms);
  check(cudaMemcpy(descriptors, output, sizeof descriptors, cudaMemcpyDeviceToHost));
  check(cudaFree(input));
  check(cudaFree(output));

  const auto dot = [&](int a, int b) {
    return std::inner_product(descriptors[a], descriptors[a] + length, descriptors[b], 0.0);
  };
  std::printf("norms %g %g\n", norms[0], norms[1]);
  std::printf("cosine similarity %.4f\n", dot(0, 1) / std::sqrt(dot(0, 0) * dot(1, 1)));
} catch (NetworkError) {  // the weight file; anything else ends the program with its type's name
  return 1;
}
