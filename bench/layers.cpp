/// @file
/// Times single layers on shapes that occur in the networks, and a matrix product large enough to
/// show what the machine can give.

#include "buffer_pool.h"
#include "layer_factory.h"
#include "layers/cba.h"
#include "layers/concat.h"
#include "layers/eltwise.h"
#include "layers/l2_norm.h"
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "layers/softmax.h"

#include <benchmark/benchmark.h>
#include <msgpack.hpp>

#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

namespace {

using facezoo::DeviceBuffer;
using facezoo::LayerRow;
using Operation = std::function<Tensor(const Tensor&)>;

std::vector<float> randomValues(std::size_t count, float low, float high) {
  std::minstd_rand generator(1);
  std::uniform_real_distribution<float> values(low, high);
  std::vector<float> result(count);
  for (float& value : result) value = values(generator);
  return result;
}

/// Random weights for one layer, in the form of a parsed weight file.
class Weights {
 public:
  explicit Weights(const LayerRow& row) {
    const LayerRow rows[] = {row};
    facezoo::forEachWeight(
        rows, "", [&](const std::string& name, std::size_t size, const LayerRow&, auto) {
          names_.push_back(name);
          // Above zero, as befits variances.
          arrays_.push_back(randomValues(size, 0.1F, 1));
          msgpack::v1::object_kv entry;
          entry.key = msgpack::v1::object(names_.back());
          entry.val.type = msgpack::v1::type::STR;
          entry.val.via.str.ptr = reinterpret_cast<const char*>(arrays_.back().data());
          entry.val.via.str.size = static_cast<std::uint32_t>(size * sizeof(float));
          entries_.push_back(entry);
        });
    root_.type = msgpack::v1::type::MAP;
    root_.via.map.ptr = entries_.data();
    root_.via.map.size = static_cast<std::uint32_t>(entries_.size());
  }
  msgpack::v1::object& root() { return root_; }

 private:
  std::deque<std::string> names_;
  std::deque<std::vector<float>> arrays_;
  std::vector<msgpack::v1::object_kv> entries_;
  msgpack::v1::object root_;
};

std::size_t elements(int4 shape) {
  return static_cast<std::size_t>(shape.x) * shape.y * shape.z * shape.w;
}

/// What one image costs a layer.
struct Work {
  int4 input;  ///< its shape; the first extent is the benchmark's argument
  int inputBytes = sizeof(float);
  double flopsPerOutput = 0;
  double weights = 0;  ///< floats that a call reads, whatever the batch
};

/// @param create what is timed; created once and untimed
void run(benchmark::State& state, const Work& work, const std::function<Operation()>& create) {
  const Operation operation = create();
  int4 shape = work.input;
  shape.x = static_cast<int>(state.range(0));
  const Tensor in(shape);
  const auto values = randomValues(elements(shape), -1, 1);
  CheckCuda(cudaMemcpy(in.base->data, values.data(), values.size() * sizeof(float),
                       cudaMemcpyHostToDevice));
  const double outputs = static_cast<double>(elements(operation(in).base->shape));
  for (auto _ : state) {
    const Tensor out = operation(in);
    float first = 0;  // whose copy waits for a device that works on its own
    CheckCuda(cudaMemcpy(&first, out.base->data, sizeof first, cudaMemcpyDeviceToHost));
  }
  const auto rate = [&](const char* name, double perCall) {
    state.counters[name] =
        benchmark::Counter(perCall, benchmark::Counter::kIsIterationInvariantRate);
  };
  rate("byte/s", static_cast<double>(values.size()) * work.inputBytes +
                     (outputs + work.weights) * sizeof(float));
  if (work.flopsPerOutput > 0) rate("FLOP/s", outputs * work.flopsPerOutput);
}

void add(const std::string& name, const Work& work, const std::function<Operation()>& create) {
  benchmark::RegisterBenchmark(name.c_str(), run, work, create)
      ->Arg(1)
      ->Arg(8)
      ->UseRealTime()
      ->Unit(benchmark::kMicrosecond);
}

/// Layers with weights: a row, as the networks' tables have it, and the edge of its input.
void addWeighted() {
  using namespace facezoo;
  const struct {
    LayerRow row;
    int edge;
  } cases[] = {
      {fusedConvolution("Inception_V1_conv1", 3, 64, 7, 2, samePadding), 224},
      {fusedConvolution("Inception_V1_conv2_reduce", 64, 64, 1, 1, noPadding), 56},
      {fusedConvolution("Inception_V1_conv2", 64, 192, 3, 1, samePadding), 56},
      {fusedConvolution("Inception_V1_3a_3x3", 96, 128, 3, 1, samePadding), 28},
      {fusedConvolution("Inception_V1_3a_5x5", 16, 32, 5, 1, samePadding), 28},
      {fusedConvolution("Inception_V1_4a_1x1", 480, 192, 1, 1, noPadding), 14},
      {fusedConvolution("Inception_V1_4d_3x3", 144, 288, 3, 1, samePadding), 14},
      {fusedConvolution("Inception_V1_4e_5x5", 32, 128, 5, 1, samePadding), 14},
      {fusedConvolution("Inception_V1_5b_1x1", 832, 384, 1, 1, noPadding), 7},
      {fusedConvolution("Inception_V1_5b_3x3", 192, 384, 3, 1, samePadding), 7},
      {fusedConvolution("DexpressionNet_conv1", 1, 64, 7, 2, samePadding), 224},
      {fusedConvolution("DexpressionNet_conv2b", 96, 208, 3, 1, samePadding), 56},
      {fusedConvolution("FANet_conv1", 3, 96, 7, 2, noPadding), 224},
      {fusedConvolution("FANet_conv2", 96, 256, 5, 1, noPadding), 37},
      {fusedConvolution("FANet_conv4", 512, 512, 3, 1, samePadding), 17},
      {convolution("GoogLeNetBN_3a_double3x3b", 96, 96, 3, 1, samePadding, noBias), 28},
      {convolution("GoogLeNetBN_3c_3x3", 128, 160, 3, 2, samePadding, noBias), 28},
      {convolution("LCNN29_conv1", 3, 96, 5, 1, samePadding, withBias), 128},
      {convolution("LCNN29_block1", 48, 96, 3, 1, samePadding, withBias), 64},
      {convolution("LCNN29_conv3_2", 96, 384, 3, 1, samePadding, withBias), 32},
      {convolution("LCNN29_conv4_1", 192, 192, 1, 1, noPadding, withBias), 16},
      {convolution("LCNN29_block7", 128, 256, 3, 1, samePadding, withBias), 16},
      {innerProduct("FANet_fc6", 512 * 6 * 6, 4096, withBias), 1},
      {innerProduct("FANet_68point", 4096, 136, withBias), 1},
      {innerProduct("GoogLeNet_loss2_fc", 128 * 5 * 5, 1024, withBias), 1},
      {innerProduct("head", 1024, 3, withBias), 1},
      {innerProduct("LCNN29_fc1", 128 * 8 * 8, 512, withBias), 1},
      {projection("GoogLeNet_pca", 512), 1},
      {batchNormalization("GoogLeNetBN_conv1", 64), 112},
      {batchNormalization("GoogLeNetBN_4a_1x1", 224), 14},
      {meanImage(224, 224, 1), 224},
      {meanImage(224, 224, 3), 224},
      {noMean(3), 128},
  };
  for (const auto& [row, edge] : cases) {
    const auto create = [row = row]() -> Operation {
      Weights weights(row);
      const std::shared_ptr<LayerBase> layer(createLayer(row, "", weights.root()));
      return [layer](const Tensor& x) { return (*layer)(x); };
    };
    const std::string size = "/" + std::to_string(row.in) + "x" + std::to_string(edge);
    const double taps = static_cast<double>(row.in) * row.kernel * row.kernel;
    switch (row.kind) {
      case LayerKind::meanImage:
      case LayerKind::noMean:
        add("Input" + size, {{0, edge, edge, row.in}, 1}, create);
        break;
      case LayerKind::batchNormalization:
        add("BatchNormalization" + size, {{0, row.in, edge, edge}}, create);
        break;
      default:
        add(row.name + size, {{0, row.in, edge, edge}, 4, 2 * taps, taps * row.out}, create);
    }
  }
}

/// A convolution by an algorithm of our choice.
struct ChosenConvolution : CBA {
  using CBA::CBA;
  Tensor with(cudnnConvolutionFwdAlgo_t algorithm, const Tensor& x) {
    configure(x.base->shape);
    algorithm_ = algorithm;
    return (*this)(x);
  }
};

/// What the CPU platform's rules that choose between algorithms rest on.
void addAlgorithms() {
  const struct {
    const char* name;
    cudnnConvolutionFwdAlgo_t id;
  } algorithms[] = {{"winograd", CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED},
                    {"panels", CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM}};
  const struct {
    int in, out, edge, kernel;
  } cases[] = {{64, 192, 56, 3}, {96, 128, 28, 3},  {144, 288, 14, 3},
               {192, 384, 7, 3}, {512, 512, 17, 3}, {96, 256, 37, 5},
               {16, 32, 28, 5},  {32, 128, 14, 5},  {48, 128, 7, 5}};
  for (const auto& t : cases) {
    const LayerRow row =
        facezoo::fusedConvolution("conv", t.in, t.out, t.kernel, 1, facezoo::samePadding);
    for (const auto& algorithm : algorithms) {
      const auto create = [row, id = algorithm.id]() -> Operation {
        Weights weights(row);
        const auto layer = std::make_shared<ChosenConvolution>(row, "", weights.root());
        return [layer, id](const Tensor& x) { return layer->with(id, x); };
      };
      std::ostringstream name;
      name << "Algorithm/" << t.kernel << 'x' << t.kernel << '/' << t.in << 'x' << t.edge << '/'
           << algorithm.name;
      const double taps = static_cast<double>(t.in) * t.kernel * t.kernel;
      add(name.str(), {{0, t.in, t.edge, t.edge}, 4, 2 * taps, taps * t.out}, create);
    }
  }
}

/// Layers that nothing has to be read for.
void addWeightless() {
  MaxPooling max;
  AveragePooling average;
  LocalResponseNormalization lrn;
  Concat concat;
  EltwiseSum sum;
  const auto pooled = [](auto pooling, int window, int stride, int pad) -> Operation {
    return [=](const Tensor& x) mutable { return pooling(x, window, stride, pad); };
  };
  const struct {
    const char* name;
    int channels, edge;
    Operation operation;
  } cases[] = {
      {"MaxPooling3s2", 64, 112, pooled(max, 3, 2, 0)},
      {"MaxPooling3s1", 480, 14, pooled(max, 3, 1, 1)},
      {"MaxPooling3s3", 96, 109, pooled(max, 3, 3, 0)},
      {"MaxPooling2s2", 48, 128, pooled(max, 2, 2, 0)},
      {"AveragePooling3s1", 576, 14, pooled(average, 3, 1, 1)},
      {"AveragePooling5s3", 528, 16, pooled(average, 5, 3, 0)},
      {"AveragePooling7s1", 1024, 7, pooled(average, 7, 1, 0)},
      {"LRN", 64, 56, [=](const Tensor& x) mutable { return lrn(x, 5, 1e-4F, 0.75F, 1); }},
      {"LRN", 192, 56, [=](const Tensor& x) mutable { return lrn(x, 5, 1e-4F, 0.75F, 1); }},
      {"LRN", 96, 109, [=](const Tensor& x) mutable { return lrn(x, 5, 5e-4F, 0.75F, 2); }},
      {"Relu", 64, 112, Relu()},
      {"Relu", 4096, 1, Relu()},
      {"Softmax", 4, 1, Softmax()},
      {"SliceEltwiseMax", 96, 128, SliceEltwiseMax()},
      {"SliceEltwiseMax", 384, 32, SliceEltwiseMax()},
      {"EltwiseSum", 48, 64, [=](const Tensor& x) mutable { return sum(x, x); }},
      {"Concat4", 128, 28,
       [=](const Tensor& x) mutable {
         return concat({x, x, x, x});
       }},
      {"L2Norm", 2048, 1, L2Norm()},
      {"L2Norm", 512, 6, L2Norm()},
  };
  for (const auto& t : cases)
    add(std::string(t.name) + "/" + std::to_string(t.channels) + "x" + std::to_string(t.edge),
        {{0, t.channels, t.edge, t.edge}}, [operation = t.operation] { return operation; });
}

/// The product of two square matrices.
void matrixProduct(benchmark::State& state) {
  const int size = static_cast<int>(state.range(0));
  const std::size_t count = static_cast<std::size_t>(size) * size;
  const float one = 1, zero = 0;
  const auto values = randomValues(count, -1, 1);
  DeviceBuffer a, b, c;
  for (DeviceBuffer* matrix : {&a, &b, &c}) {
    matrix->allocate(count);
    CheckCuda(
        cudaMemcpy(matrix->get(), values.data(), count * sizeof(float), cudaMemcpyHostToDevice));
  }
  for (auto _ : state) {
    CheckCublas(cublasSgemm_v2(blasHandle, CUBLAS_OP_T, CUBLAS_OP_N, size, size, size, &one,
                               a.get(), size, b.get(), size, &zero, c.get(), size));
    float first = 0;
    CheckCuda(cudaMemcpy(&first, c.get(), sizeof first, cudaMemcpyDeviceToHost));
  }
  state.counters["FLOP/s"] = benchmark::Counter(2.0 * size * static_cast<double>(count),
                                                benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(matrixProduct)->Arg(1024)->Arg(2048)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  try {
    constexpr int kLargestTensor = 64 << 20;
    preparePool(kLargestTensor, 4);
    addWeighted();
    addAlgorithms();
    addWeightless();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    destroyPool();
    LayerBase::releaseAll();
    return 0;
  } catch (...) {
    std::cerr << "facezoo-bench-layers: a call of the library failed" << std::endl;
    return 1;
  }
}
