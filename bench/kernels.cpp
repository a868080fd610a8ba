/// @file
/// Times the library's own kernels on a card, each beside the shortest time that its memory traffic
/// or its chain of operations allows, as a Markdown table.

#include "client/devices.h"
#include "client/failure.h"
#include "kernels/eltwise.h"
#include "kernels/l2_norm.h"
#include "kernels/transform.h"
#include "stopwatch.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <string>

using namespace facezoo;

namespace {

int attribute(cudaDeviceAttr which) {
  int value = 0;
  checkCall(cudaDeviceGetAttribute(&value, which, 0), "attribute of the device");
  return value;
}

/// Device memory filled with a value other than zero, as some hardware moves zeros faster.
struct FilledBuffer : DeviceBuffer {
  explicit FilledBuffer(std::size_t bytes) : DeviceBuffer(bytes) {
    checkCall(cudaMemset(data(), 0x3E, bytes), "filling of device memory");
  }
  float* floats() { return static_cast<float*>(data()); }
};

/// The median time of a call. Each sample times many calls together, so that the cost of the
/// measurement itself hardly counts.
template <class Call>
double microseconds(const Call& call) {
  constexpr int kCalls = 20;
  std::array<double, 31> samples;
  Stopwatch watch;
  call();
  for (double& sample : samples) {
    watch.start();
    for (int i = 0; i < kCalls; ++i) call();
    sample = watch.stop() * 1e3 / kCalls;
  }
  checkCall(cudaGetLastError(), "launch");
  std::nth_element(samples.begin(), samples.begin() + samples.size() / 2, samples.end());
  return samples[samples.size() / 2];
}

/// Prints a line of the table.
/// @param bytes that a call moves; 0 if memory does not limit it
void print(const std::string& kernel, const std::string& shape, double time, double floor,
           double bytes) {
  const std::string rate = bytes > 0 ? std::to_string(std::lround(bytes / time / 1e3)) : "";
  std::printf("| %s | %s | %.2f | %s | %.2f | %.2f |\n", kernel.c_str(), shape.c_str(), time,
              rate.c_str(), floor, time / floor);
}

/// Times a kernel beside a copy whose bytes read and written are as many together.
template <class Call>
void timeMoves(const std::string& kernel, const std::string& shape, std::size_t bytes,
               const Call& call) {
  const std::size_t half = bytes / 2;
  FilledBuffer from(half);
  FilledBuffer to(half);
  const double copy = microseconds(
      [&] { cudaMemcpyAsync(to.data(), from.data(), half, cudaMemcpyDeviceToDevice, nullptr); });
  print(kernel, shape, microseconds(call), copy, static_cast<double>(bytes));
}

/// @param beside whether the two inputs share their rows, as the halves of a map's channels do
void timeRows(const std::string& kernel, decltype(facezoo::maxRows)* launch, int width, int height,
              bool beside) {
  const std::size_t count = static_cast<std::size_t>(width) * height;
  FilledBuffer in(2 * count * sizeof(float));
  FilledBuffer out(count * sizeof(float));
  const int stride = beside ? 2 * width : width;
  float* const second = in.floats() + (beside ? width : count);
  timeMoves(kernel, std::to_string(height) + " x " + std::to_string(width),
            3 * count * sizeof(float),
            [&] { launch(in.floats(), second, stride, width, height, out.floats(), width); });
}

void timeConversion(const std::string& kernel, MeanKind kind, int4 dims) {
  const std::size_t image = static_cast<std::size_t>(dims.y) * dims.z * dims.w;
  const std::size_t count = image * dims.x;
  FilledBuffer in(count);
  FilledBuffer mean(image * sizeof(float));
  FilledBuffer out(count * sizeof(float));
  const std::string shape = std::to_string(dims.x) + " x " + std::to_string(dims.y) + " x " +
                            std::to_string(dims.z) + " x " + std::to_string(dims.w);
  timeMoves(kernel, shape, count * (1 + sizeof(float)), [&] {
    facezoo::convertImages(kind, dims, static_cast<unsigned char*>(in.data()), out.floats(),
                           mean.floats());
  });
}

/// Times the L2 norm beside its chain of dependent multiply-adds, of four cycles each.
void timeNorms(int count, int dim) {
  FilledBuffer in(static_cast<std::size_t>(count) * dim * sizeof(float));
  FilledBuffer out(count * sizeof(float));
  const double time =
      microseconds([&] { facezoo::l2Norms(count, dim, in.floats(), out.floats()); });
  print("l2Norms", std::to_string(count) + " x " + std::to_string(dim), time,
        dim * 4e3 / attribute(cudaDevAttrClockRate), 0);
}

void timeAll() {
  constexpr int kRows = 64;
  const int beyondCache = 4 * attribute(cudaDevAttrL2CacheSize);  // bytes
  const int longRow = beyondCache / kRows / (3 * static_cast<int>(sizeof(float)));
  std::puts("| kernel | shape | µs | GB/s | floor µs | times the floor |");
  std::puts("|---|---|---:|---:|---:|---:|");
  timeRows("maxRows", facezoo::maxRows, longRow, kRows, true);
  timeRows("maxRows, LCNN29 conv1", facezoo::maxRows, 48 * 128 * 128, 8, true);
  timeRows("sumRows", facezoo::sumRows, longRow, kRows, false);
  timeRows("sumRows, LCNN29 block 1", facezoo::sumRows, 48 * 64 * 64, 8, false);
  const struct {
    const char* name;
    MeanKind kind;
    int edge, channels;
  } conversions[] = {{"convertImages", MeanKind::none, 128, 3},
                     {"convertImages, mean image", MeanKind::image, 224, 1},
                     {"convertImages, mean image", MeanKind::image, 224, 3},
                     {"convertImages, channel means", MeanKind::channel, 224, 3}};
  for (const auto& t : conversions) {
    const int many = beyondCache / (5 * t.edge * t.edge * t.channels);
    for (const int count : {1, 8, many})
      timeConversion(t.name, t.kind, {count, t.edge, t.edge, t.channels});
  }
  for (const int dim : {18432, 8192, 2048})
    for (const int count : {1, 8, 128}) timeNorms(count, dim);
}

}  // namespace

int main() {
  try {
    timeAll();
    return 0;
  } catch (...) {
    std::cerr << "facezoo-bench-kernels: " << describeException() << std::endl;
    return 1;
  }
}
