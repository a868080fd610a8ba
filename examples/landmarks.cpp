// Prints what FANet finds in a face: 136 values of 68 landmarks and the norm of its features.
//   landmarks WEIGHTS IMAGE
#include <facezoo.h>
#include <cstdio>
#include <fstream>
#include "check.h"
static int fail(const char* why) {
  std::fprintf(stderr, "landmarks: %s\n", why);
  return 1;
}

int main(int argc, char** argv) try {
  static char image[224 * 224 * 3];
  if (argc != 3 || !std::ifstream(argv[2], std::ios::binary).read(image, sizeof image))
    return fail("expected a file of weights and an image of 150528 bytes");
  GPU gpu;
  FANet net(argv[1], 1, "");
  void* device;
  check(cudaMalloc(&device, sizeof image));
  check(cudaMemcpy(device, image, sizeof image, cudaMemcpyHostToDevice));
  float landmarks[136], norm;
  net.Forward(device, 1, landmarks, &norm);
  check(cudaFree(device));
  for (float value : landmarks) std::printf("%g\n", value);
  std::printf("norm %g\n", norm);
} catch (const std::exception& e) {  // a damaged weight file; memory of the host
  return fail(e.what());
} catch (GPUError) {
  return fail("no suitable device");
} catch (NetworkError e) {
  return fail(e == WEIGHT_FILE_NOT_FOUND ? "no such weights" : "weights of something else");
} catch (TensorError) {
  return fail("more images than the network was made for");
} catch (cudaError e) {
  return fail(cudaGetErrorString(e));
} catch (cudnnStatus_t e) {
  return fail(cudnnGetErrorString(e));
} catch (cublasStatus_t) {
  return fail("cuBLAS failed");
}
