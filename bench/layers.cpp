/// @file
/// Times single layers on shapes of the networks, and a matrix product that is large enough to show
/// how fast the machine can multiply.

#include "buffer_pool.h"
#include "layer_factory.h"
#include "layer_shapes.h"
#include "layers/cba.h"
#include "layers/concat.h"
#include "layers/eltwise.h"
#include "layers/l2_norm.h"
#include "layers/lrn.h"
#include "layers/pool.h"
#include "layers/relu.h"
#include "layers/softmax.h"

#if FACEZOO_SIMULATED
#include <host_device.h>
#endif

#include <benchmark/benchmark.h>
#include <msgpack.hpp>

#include <deque>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <vector>

using namespace facezoo::test;

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

/// The work of a layer on one image.
struct Work {
  int4 input;  ///< its shape; the first extent is the benchmark's argument
  int inputBytes = sizeof(float);
  double flopsPerOutput = 0;
  double weights = 0;  ///< floats that a call reads, whatever the batch
};

/// @param create makes what is timed; its own time does not count
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

std::string sizeName(int channels, int edge) {
  return "/" + std::to_string(channels) + "x" + std::to_string(edge);
}

/// A layer that reads random weights.
std::function<Operation()> weighted(const LayerRow& row) {
  return [row]() -> Operation {
    Weights weights(row);
    const std::shared_ptr<LayerBase> layer(createLayer(row, "", weights.root()));
    return [layer](const Tensor& x) { return (*layer)(x); };
  };
}

Work workOf(const LayerShape& shape) {
  const LayerRow& row = shape.row;
  const double taps = static_cast<double>(row.in) * row.kernel * row.kernel;
  return {{0, row.in, shape.height, shape.width}, 4, 2 * taps, taps * row.out};
}

void addWeighted() {
  for (const LayerShape& shape : networkLayers) {
    const LayerRow& row = shape.row;
    const bool normalizes = row.kind == facezoo::LayerKind::batchNormalization;
    add((normalizes ? "BatchNormalization" : row.name) + sizeName(row.in, shape.width),
        normalizes ? Work{workOf(shape).input} : workOf(shape), weighted(row));
  }
  for (const LayerShape& shape : networkInputs) {
    add("Input" + sizeName(shape.row.in, shape.width),
        {{0, shape.height, shape.width, shape.row.in}, 1}, weighted(shape.row));
  }
}

/// A convolution that computes with the algorithm that it is told.
struct ChosenConvolution : CBA {
  using CBA::CBA;
  Tensor with(cudnnConvolutionFwdAlgo_t algorithm, const Tensor& x) {
    configure(x.base->shape);
    algorithm_ = algorithm;
    return (*this)(x);
  }
};

/// Times both algorithms of the CPU platform, whose rules for choosing one rest on these times.
void addAlgorithms() {
  const struct {
    const char* name;
    cudnnConvolutionFwdAlgo_t id;
  } algorithms[] = {{"winograd", CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED},
                    {"panels", CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM}};
  for (const LayerShape& shape : networkLayers) {
    const LayerRow& row = shape.row;
    if (row.kind != facezoo::LayerKind::fusedConvolution || row.stride > 1) continue;
    if (row.kernel != 3 && row.kernel != 5) continue;
    for (const auto& algorithm : algorithms) {
      const auto create = [row, id = algorithm.id]() -> Operation {
        Weights weights(row);
        const auto layer = std::make_shared<ChosenConvolution>(row, "", weights.root());
        return [layer, id](const Tensor& x) { return layer->with(id, x); };
      };
      std::ostringstream name;
      name << "Algorithm/" << row.kernel << 'x' << row.kernel << '/' << row.in << 'x' << shape.width
           << '/' << algorithm.name;
      add(name.str(), workOf(shape), create);
    }
  }
}

void addPoolings() {
  for (const PoolingShape& shape : networkPoolings) {
    const auto pooled = [&](auto pooling) -> Operation {
      return [=](const Tensor& x) mutable {
        return pooling(x, shape.window, shape.stride, shape.pad);
      };
    };
    Operation operation = shape.average ? pooled(AveragePooling()) : pooled(MaxPooling());
    add((shape.average ? "AveragePooling" : "MaxPooling") + std::to_string(shape.window) + "s" +
            std::to_string(shape.stride) + sizeName(shape.channels, shape.width),
        {{0, shape.channels, shape.height, shape.width}}, [=] { return operation; });
  }
}

void addMaps() {
  LocalResponseNormalization lrn;
  Concat concat;
  EltwiseSum sum;
  const struct {
    const char* name;
    facezoo::View<MapShape> shapes;
    Operation operation;
  } layers[] = {
      {"Copy", facezoo::view(networkLrns),
       [](const Tensor& x) {
         Tensor copy(x.base->shape);
         CheckCuda(cudaMemcpy(copy.base->data, x.base->data,
                              elements(x.base->shape) * sizeof(float), cudaMemcpyDeviceToDevice));
         return copy;
       }},
      {"LRN", facezoo::view(networkLrns),
       [=](const Tensor& x) mutable { return lrn(x, 5, 1e-4F, 0.75F, 1); }},
      {"Relu", facezoo::view(networkRelus), Relu()},
      {"Softmax", facezoo::view(networkSoftmaxes), Softmax()},
      {"SliceEltwiseMax", facezoo::view(networkMaxima), SliceEltwiseMax()},
      {"EltwiseSum", facezoo::view(networkSums),
       [=](const Tensor& x) mutable { return sum(x, x); }},
      {"Concat", facezoo::view(networkConcats),
       [=](const Tensor& x) mutable {
         return concat({x, x, x, x});
       }},
      {"L2Norm", facezoo::view(networkNorms), L2Norm()},
  };
  for (const auto& layer : layers) {
    for (const MapShape& shape : layer.shapes) {
      add(layer.name + sizeName(shape.channels, shape.width),
          {{0, shape.channels, shape.height, shape.width}},
          [operation = layer.operation] { return operation; });
    }
  }
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
#if FACEZOO_SIMULATED
    if (!host_device::useInstructionSetOfEnvironment()) {
      std::cerr << "FACEZOO_INSTRUCTION_SET names a set that this processor lacks" << std::endl;
      return 1;
    }
#endif
    constexpr int kLargestTensor = 64 << 20;
    preparePool(kLargestTensor, 4);
    addWeighted();
    addAlgorithms();
    addPoolings();
    addMaps();
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
