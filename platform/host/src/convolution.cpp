/// @file
/// Convolution: the algorithms, the rules that choose between them, and their fused form.
#include <cudnn.h>
#include <omp.h>
#include <dnnl.hpp>

#include <cstring>
#include <limits>
#include <memory>
#include <unordered_map>
#include <utility>

#include "compute.h"
#include "instrumentation.h"

using namespace host_device::detail;

namespace {

struct Axis {
  int input, kernel, pad, stride, output;
};

/// One convolution. Fused means followed by bias and ReLU; the query, which cannot know, takes it
/// so, as it may need more workspace.
struct Problem {
  int n, c, k;
  Axis vertical, horizontal;
  bool fused;

  std::size_t inputPlane() const { return std::size_t{1} * vertical.input * horizontal.input; }
  std::size_t outputPlane() const { return std::size_t{1} * vertical.output * horizontal.output; }
};

/// The bias is null unless the problem is fused.
struct Operands {
  const float* x;
  const float* w;
  const float* bias;
  float* y;
  void* workspace;
  std::size_t workspaceBytes;
};

/// Not std::max: a NaN becomes 0.
HOST_DEVICE_CLONES void addBiasAndRectify(float* row, std::size_t count, float bias) {
  for (std::size_t i = 0; i < count; ++i) {
    const float value = row[i] + bias;
    row[i] = value > 0.0f ? value : 0.0f;
  }
}

std::size_t noWorkspace(Problem) { return 0; }

// Matrix product: the image of a 1x1 convolution is the matrix of its inputs already.

bool isPointwise(const Problem& problem) {
  const auto pointwise = [](const Axis& axis) {
    return axis.kernel == 1 && axis.stride == 1 && axis.pad == 0;
  };
  return pointwise(problem.vertical) && pointwise(problem.horizontal);
}

cudnnStatus_t runGemm(const Problem& problem, const Operands& operands) {
  const std::size_t plane = problem.outputPlane();
  for (int n = 0; n < problem.n; ++n) {
    float* y = operands.y + n * problem.k * plane;
    const auto status =
        dnnl_sgemm('N', 'N', problem.k, plane, problem.c, 1.0f, operands.w, problem.c,
                   operands.x + n * problem.c * plane, plane, 0.0f, y, plane);
    if (status != dnnl_success) return CUDNN_STATUS_EXECUTION_FAILED;
    if (!problem.fused) continue;
#pragma omp parallel for schedule(static)
    for (int k = 0; k < problem.k; ++k) addBiasAndRectify(y + k * plane, plane, operands.bias[k]);
  }
  return CUDNN_STATUS_SUCCESS;
}

// Direct convolution by oneDNN, on tensors whose channels are interleaved in blocks.

using Tag = dnnl::memory::format_tag;
using ConvolutionDesc = dnnl::convolution_forward::primitive_desc;

/// The process has one engine and one stream; they outlive whatever static destructors may still
/// need them.
const dnnl::engine& cpu() {
  static const auto& engine = *new dnnl::engine(dnnl::engine::kind::cpu, 0);
  return engine;
}
dnnl::stream& cpuStream() {
  static auto& stream = *new dnnl::stream(cpu());
  return stream;
}

dnnl::memory::desc layout(const dnnl::memory::dims& extents, Tag tag) {
  return {extents, dnnl::memory::data_type::f32, tag};
}
dnnl::memory::desc plainInput(const Problem& problem) {
  return layout({problem.n, problem.c, problem.vertical.input, problem.horizontal.input},
                Tag::nchw);
}
dnnl::memory::desc plainOutput(const Problem& problem) {
  return layout({problem.n, problem.k, problem.vertical.output, problem.horizontal.output},
                Tag::nchw);
}
dnnl::memory::desc plainFilter(const Problem& problem) {
  return layout({problem.k, problem.c, problem.vertical.kernel, problem.horizontal.kernel},
                Tag::oihw);
}

dnnl::primitive_attr withUserScratchpad() {
  dnnl::primitive_attr attributes;
  attributes.set_scratchpad_mode(dnnl::scratchpad_mode::user);
  attributes.set_fpmath_mode(dnnl::fpmath_mode::strict);
  return attributes;
}

/// Left to itself oneDNN may take a layout that costs more to reorder to and from, so the layouts
/// are named, best first; a machine without a generated kernel for one of them goes on to the next.
/// The generated kernels turn a NaN before the ReLU into 0; in the last resort, where others may
/// keep it, the ReLU is not part of the convolution.
ConvolutionDesc describeDirect(const Problem& problem) {
  const auto extents = [](const dnnl::memory::desc& desc) { return desc.dims(); };
  const Axis &v = problem.vertical, &h = problem.horizontal;
  const dnnl::memory::dims strides = {v.stride, h.stride}, padding = {v.pad, h.pad};
  const auto plain = withUserScratchpad();
  auto rectifying = withUserScratchpad();
  dnnl::post_ops relu;
  relu.append_eltwise(1.0f, dnnl::algorithm::eltwise_relu, 0.0f, 0.0f);
  rectifying.set_post_ops(relu);
  // Blocks of channels would be mostly padding in an image of one or three.
  const Tag few = problem.c < 16 ? Tag::nchw : Tag::undef;
  const std::pair<Tag, Tag> layouts[] = {{few, Tag::nChw16c},
                                         {Tag::nChw16c, Tag::nChw16c},
                                         {few, Tag::nChw8c},
                                         {Tag::nChw8c, Tag::nChw8c},
                                         {Tag::any, Tag::any}};
  for (const auto& [source, destination] : layouts) {
    if (source == Tag::undef) continue;
    const bool last = source == Tag::any;
    ConvolutionDesc desc(
        {dnnl::prop_kind::forward_inference, dnnl::algorithm::convolution_direct,
         layout(extents(plainInput(problem)), source),
         layout(extents(plainFilter(problem)), Tag::any),
         problem.fused ? layout({problem.k}, Tag::x) : dnnl::memory::desc(),
         layout(extents(plainOutput(problem)), destination), strides, padding, padding},
        problem.fused && !last ? rectifying : plain, cpu(), !last);
    if (last || (desc.get(true) && std::strncmp(desc.impl_info_str(), "jit", 3) == 0)) return desc;
  }
  throw dnnl::error(dnnl_unimplemented, "no direct convolution");
}

/// Where the pieces of scratch lie in the workspace. A piece that is not needed is empty.
struct DirectScratch {
  static constexpr std::size_t alignment = 64;
  std::size_t source = 0, destination = 0, scratchpad = 0, bytes = 0;

  DirectScratch(const Problem& problem, const ConvolutionDesc& desc) {
    // The workspace itself may start anywhere.
    std::size_t end = alignment;
    const auto append = [&end](std::size_t& offset, std::size_t size) {
      offset = end;
      end += (size + alignment - 1) / alignment * alignment;
    };
    if (desc.src_desc() != plainInput(problem)) append(source, desc.src_desc().get_size());
    if (desc.dst_desc() != plainOutput(problem)) append(destination, desc.dst_desc().get_size());
    append(scratchpad, desc.scratchpad_desc().get_size());
    bytes = end;
  }
};

/// A batch too large for the workspace goes through it in parts, so one image is all that must fit.
std::size_t directWorkspace(Problem problem) {
  problem.n = 1;
  return DirectScratch(problem, describeDirect(problem)).bytes;
}

template <class Make>
auto derive(const void* source, const DerivedKey& key, const Make& make) -> decltype(make()) {
  using Pointer = decltype(make());
  if (auto found = findDerived(source, key)) {
    return std::static_pointer_cast<typename Pointer::element_type>(found);
  }
  Pointer made = make();
  storeDerived(source, key, made);
  return made;
}

enum DerivedKind : std::int64_t { packedFilter, preparedDirect };

struct PackedFilter : Derived {
  dnnl::memory data;
  PackedFilter(const Problem& problem, const float* w, const dnnl::memory::desc& packed)
      : data(packed, cpu()) {
    dnnl::memory plain(plainFilter(problem), cpu(), const_cast<float*>(w));
    dnnl::reorder(plain, data).execute(cpuStream(), plain, data);
    cpuStream().wait();
  }
};

/// The packed form depends on the layout alone, so that all batch sizes share it.
std::shared_ptr<PackedFilter> packFilter(const Problem& problem, const float* w,
                                         const dnnl::memory::desc& packed) {
  const auto& blocking = packed.data.format_desc.blocking;
  DerivedKey key = {packedFilter, address(w)};
  key.insert(key.end(), packed.data.dims, packed.data.dims + packed.data.ndims);
  key.insert(key.end(), blocking.strides, blocking.strides + packed.data.ndims);
  key.insert(key.end(), blocking.inner_blks, blocking.inner_blks + blocking.inner_nblks);
  key.insert(key.end(), blocking.inner_idxs, blocking.inner_idxs + blocking.inner_nblks);
  return derive(w, key, [&] { return std::make_shared<PackedFilter>(problem, w, packed); });
}

class PreparedDirect : public Derived {
 public:
  PreparedDirect(const Problem& problem, const float* w)
      : desc_(describeDirect(problem)),
        scratch_(problem, desc_),
        convolution_(desc_),
        input_(plainInput(problem)),
        output_(plainOutput(problem)),
        bias_(layout({problem.k}, Tag::x)),
        filter_(packFilter(problem, w, desc_.weights_desc())) {
    rectifies_ = problem.fused && desc_.get_primitive_attr().get_post_ops().len() == 0;
    if (scratch_.source) reorderInput_ = reorder(input_, desc_.src_desc());
    if (scratch_.destination) reorderOutput_ = reorder(desc_.dst_desc(), output_);
  }

  std::size_t workspaceBytes() const { return scratch_.bytes; }

  cudnnStatus_t run(const Operands& operands) const {
    if (!writeDevice(operands.workspace, operands.workspaceBytes)) return CUDNN_STATUS_BAD_PARAM;
    auto* const start = static_cast<char*>(operands.workspace);
    char* const base = start - address(start) % DirectScratch::alignment;
    const auto memory = [](const dnnl::memory::desc& desc, const void* data) {
      return dnnl::memory(desc, cpu(), const_cast<void*>(data));
    };
    const auto x = memory(input_, operands.x), y = memory(output_, operands.y);
    const auto source = scratch_.source ? memory(desc_.src_desc(), base + scratch_.source) : x;
    const auto destination =
        scratch_.destination ? memory(desc_.dst_desc(), base + scratch_.destination) : y;

    if (reorderInput_) {
      reorderInput_.execute(cpuStream(), {{DNNL_ARG_FROM, x}, {DNNL_ARG_TO, source}});
    }
    std::unordered_map<int, dnnl::memory> arguments = {
        {DNNL_ARG_SRC, source},
        {DNNL_ARG_WEIGHTS, filter_->data},
        {DNNL_ARG_DST, destination},
        {DNNL_ARG_SCRATCHPAD, memory(desc_.scratchpad_desc(), base + scratch_.scratchpad)}};
    if (operands.bias) arguments.emplace(DNNL_ARG_BIAS, memory(bias_, operands.bias));
    convolution_.execute(cpuStream(), arguments);
    if (reorderOutput_) {
      reorderOutput_.execute(cpuStream(), {{DNNL_ARG_FROM, destination}, {DNNL_ARG_TO, y}});
    }
    cpuStream().wait();
    if (rectifies_) {
      forPieces(output_.get_size() / sizeof(float), [&](std::size_t begin, std::size_t end) {
        addBiasAndRectify(operands.y + begin, end - begin, 0.0f);
      });
    }
    return CUDNN_STATUS_SUCCESS;
  }

 private:
  static dnnl::primitive reorder(const dnnl::memory::desc& from, const dnnl::memory::desc& to) {
    return dnnl::reorder(dnnl::reorder::primitive_desc(cpu(), from, cpu(), to));
  }

  ConvolutionDesc desc_;
  DirectScratch scratch_;
  dnnl::convolution_forward convolution_;
  dnnl::memory::desc input_, output_, bias_;
  std::shared_ptr<PackedFilter> filter_;
  dnnl::primitive reorderInput_, reorderOutput_;
  bool rectifies_;
};

cudnnStatus_t runDirect(const Problem& problem, const Operands& operands) {
  const Axis &v = problem.vertical, &h = problem.horizontal;
  // The number of threads is part of a primitive's plan.
  const DerivedKey key = {preparedDirect,
                          address(operands.w),
                          omp_get_max_threads(),
                          problem.fused,
                          problem.n,
                          problem.c,
                          problem.k,
                          v.input,
                          v.kernel,
                          v.pad,
                          v.stride,
                          h.input,
                          h.kernel,
                          h.pad,
                          h.stride};
  const auto prepared = derive(
      operands.w, key, [&] { return std::make_shared<PreparedDirect>(problem, operands.w); });
  if (operands.workspaceBytes >= prepared->workspaceBytes()) return prepared->run(operands);
  if (problem.n == 1) return CUDNN_STATUS_BAD_PARAM;

  Problem part = problem;
  part.n = problem.n / 2;
  if (const auto status = runDirect(part, operands)) return status;
  Operands rest = operands;
  rest.x += part.n * problem.c * problem.inputPlane();
  rest.y += part.n * problem.k * problem.outputPlane();
  part.n = problem.n - part.n;
  return runDirect(part, rest);
}

// Plain loops, which need nothing: the last resort.

/// The outputs [first, second) of an axis that meet the input under the kernel's element `u`.
HOST_DEVICE_INLINE std::pair<int, int> outputsUnder(const Axis& axis, int u) {
  const int offset = axis.pad - u;
  const int first = offset > 0 ? (offset + axis.stride - 1) / axis.stride : 0;
  const int last = axis.input - 1 + offset;
  return {first, last < 0 ? 0 : std::min(axis.output, last / axis.stride + 1)};
}

/// Computes one output plane; x is its image, w the filter of its channel.
HOST_DEVICE_CLONES void convolvePlane(const Problem& problem, const float* x, const float* w,
                                      float* __restrict y) {
  const Axis &v = problem.vertical, &h = problem.horizontal;
  std::fill_n(y, problem.outputPlane(), 0.0f);
  for (int c = 0; c < problem.c; ++c, x += problem.inputPlane()) {
    for (int u = 0; u < v.kernel; ++u) {
      const auto [firstRow, endRow] = outputsUnder(v, u);
      for (int t = 0; t < h.kernel; ++t) {
        const auto [first, end] = outputsUnder(h, t);
        const float weight = *w++;
        for (int i = firstRow; i < endRow; ++i) {
          const std::ptrdiff_t row = std::ptrdiff_t{i} * v.stride - v.pad + u;
          const float* __restrict from = x + row * h.input;
          float* __restrict to = y + std::ptrdiff_t{i} * h.output;
          for (int j = first; j < end; ++j) to[j] += weight * from[j * h.stride - h.pad + t];
        }
      }
    }
  }
}

cudnnStatus_t runImplicitGemm(const Problem& problem, const Operands& operands) {
  const std::size_t plane = problem.outputPlane();
  const std::size_t filter =
      std::size_t{1} * problem.c * problem.vertical.kernel * problem.horizontal.kernel;
#pragma omp parallel for schedule(static) collapse(2)
  for (int n = 0; n < problem.n; ++n) {
    for (int k = 0; k < problem.k; ++k) {
      float* y = operands.y + (std::size_t{1} * n * problem.k + k) * plane;
      convolvePlane(problem, operands.x + n * problem.c * problem.inputPlane(),
                    operands.w + k * filter, y);
      if (problem.fused) addBiasAndRectify(y, plane, operands.bias[k]);
    }
  }
  return CUDNN_STATUS_SUCCESS;
}

// The rules: the query takes the first algorithm that supports the shape and fits the limit.

bool always(const Problem&) { return true; }

struct Algorithm {
  cudnnConvolutionFwdAlgo_t id;
  bool (*supports)(const Problem&);
  std::size_t (*workspaceBytes)(Problem);
  cudnnStatus_t (*run)(const Problem&, const Operands&);
};

constexpr Algorithm algorithms[] = {
    {CUDNN_CONVOLUTION_FWD_ALGO_GEMM, isPointwise, noWorkspace, runGemm},
    {CUDNN_CONVOLUTION_FWD_ALGO_DIRECT, always, directWorkspace, runDirect},
    {CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM, always, noWorkspace, runImplicitGemm},
};

/// False if the kernel does not fit the padded input.
bool completeAxis(Axis& axis) {
  const std::int64_t room = std::int64_t{axis.input} + 2 * std::int64_t{axis.pad} - axis.kernel;
  const std::int64_t output = room / axis.stride + 1;
  axis.output = static_cast<int>(output);
  return room >= 0 && output <= std::numeric_limits<int>::max();
}

bool describe(cudnnConvolutionDescriptor_t convolution, cudnnTensorDescriptor_t x,
              cudnnFilterDescriptor_t w, Problem& problem) {
  if (!allLive(convolution, w) || !isSet(x) || convolution->strideH <= 0 || w->k <= 0 ||
      w->c != x->c) {
    return false;
  }
  problem = {x->n,
             x->c,
             w->k,
             {x->h, w->h, convolution->padH, convolution->strideH, 0},
             {x->w, w->w, convolution->padW, convolution->strideW, 0},
             true};
  return completeAxis(problem.vertical) && completeAxis(problem.horizontal);
}

bool isOutput(const Problem& problem, cudnnTensorDescriptor_t y) {
  return isSet(y) && y->n == problem.n && y->c == problem.k && y->h == problem.vertical.output &&
         y->w == problem.horizontal.output;
}

/// What the plain and the fused call have in common.
cudnnStatus_t convolve(cudnnConvolutionFwdAlgo_t id, const Problem& problem,
                       const cudnnTensorStruct& xDesc, const cudnnFilterStruct& wDesc,
                       const cudnnTensorStruct& yDesc, const Operands& operands) {
  if (!isDevice(operands.x, xDesc.bytes()) || !isDevice(operands.w, wDesc.bytes()) ||
      !isDevice(operands.y, yDesc.bytes()) ||
      overlap(operands.x, xDesc.bytes(), operands.y, yDesc.bytes()) ||
      overlap(operands.w, wDesc.bytes(), operands.y, yDesc.bytes())) {
    return CUDNN_STATUS_BAD_PARAM;
  }
  for (const Algorithm& algorithm : algorithms) {
    if (algorithm.id != id) continue;
    if (!algorithm.supports(problem)) break;
    writeDevice(operands.y, yDesc.bytes());
    return algorithm.run(problem, operands);
  }
  return CUDNN_STATUS_NOT_SUPPORTED;
}

}  // namespace

cudnnStatus_t cudnnGetConvolution2dForwardOutputDim(cudnnConvolutionDescriptor_t convolution,
                                                    cudnnTensorDescriptor_t input,
                                                    cudnnFilterDescriptor_t filter, int* n, int* c,
                                                    int* h, int* w) {
  return enter("cudnnGetConvolution2dForwardOutputDim", {}, [&]() -> cudnnStatus_t {
    Problem problem;
    if (!describe(convolution, input, filter, problem) || !n || !c || !h || !w) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    *n = problem.n;
    *c = problem.k;
    *h = problem.vertical.output;
    *w = problem.horizontal.output;
    return CUDNN_STATUS_SUCCESS;
  });
}

cudnnStatus_t cudnnGetConvolutionForwardAlgorithm(cudnnHandle_t handle, cudnnTensorDescriptor_t x,
                                                  cudnnFilterDescriptor_t w,
                                                  cudnnConvolutionDescriptor_t convolution,
                                                  cudnnTensorDescriptor_t y,
                                                  cudnnConvolutionFwdPreference_t preference,
                                                  size_t memoryLimit,
                                                  cudnnConvolutionFwdAlgo_t* algorithm) {
  const auto limitArgument = static_cast<std::int64_t>(memoryLimit);
  return enter("cudnnGetConvolutionForwardAlgorithm", {preference, limitArgument},
               [&]() -> cudnnStatus_t {
                 Problem problem;
                 if (!allLive(handle) || !describe(convolution, x, w, problem) ||
                     !isOutput(problem, y) || !algorithm) {
                   return CUDNN_STATUS_BAD_PARAM;
                 }
                 std::size_t limit = 0;
                 switch (preference) {
                   case CUDNN_CONVOLUTION_FWD_NO_WORKSPACE:
                     break;
                   case CUDNN_CONVOLUTION_FWD_PREFER_FASTEST:
                     limit = SIZE_MAX;
                     break;
                   case CUDNN_CONVOLUTION_FWD_SPECIFY_WORKSPACE_LIMIT:
                     limit = memoryLimit;
                     break;
                   default:
                     return CUDNN_STATUS_BAD_PARAM;
                 }
                 for (const Algorithm& candidate : algorithms) {
                   if (candidate.supports(problem) && candidate.workspaceBytes(problem) <= limit) {
                     *algorithm = candidate.id;
                     return CUDNN_STATUS_SUCCESS;
                   }
                 }
                 return CUDNN_STATUS_NOT_SUPPORTED;
               });
}

cudnnStatus_t cudnnConvolutionForward(cudnnHandle_t handle, const void* alpha,
                                      cudnnTensorDescriptor_t xDesc, const void* x,
                                      cudnnFilterDescriptor_t wDesc, const void* w,
                                      cudnnConvolutionDescriptor_t convolution,
                                      cudnnConvolutionFwdAlgo_t algorithm, void* workspace,
                                      size_t workspaceBytes, const void* beta,
                                      cudnnTensorDescriptor_t yDesc, void* y) {
  return enter("cudnnConvolutionForward",
               {algorithm, address(workspace), static_cast<std::int64_t>(workspaceBytes)},
               [&]() -> cudnnStatus_t {
                 Problem problem;
                 if (!allLive(handle) || !describe(convolution, xDesc, wDesc, problem) ||
                     !isOutput(problem, yDesc)) {
                   return CUDNN_STATUS_BAD_PARAM;
                 }
                 if (const auto status = checkPlain(alpha, beta)) return status;
                 problem.fused = false;
                 return convolve(algorithm, problem, *xDesc, *wDesc, *yDesc,
                                 {static_cast<const float*>(x), static_cast<const float*>(w),
                                  nullptr, static_cast<float*>(y), workspace, workspaceBytes});
               });
}

cudnnStatus_t cudnnConvolutionBiasActivationForward(
    cudnnHandle_t handle, const void* alpha1, cudnnTensorDescriptor_t xDesc, const void* x,
    cudnnFilterDescriptor_t wDesc, const void* w, cudnnConvolutionDescriptor_t convolution,
    cudnnConvolutionFwdAlgo_t algorithm, void* workspace, size_t workspaceBytes, const void* alpha2,
    cudnnTensorDescriptor_t zDesc, const void* z, cudnnTensorDescriptor_t biasDesc,
    const void* bias, cudnnActivationDescriptor_t activation, cudnnTensorDescriptor_t yDesc,
    void* y) {
  return enter("cudnnConvolutionBiasActivationForward",
               {algorithm, address(workspace), static_cast<std::int64_t>(workspaceBytes)},
               [&]() -> cudnnStatus_t {
                 Problem problem;
                 if (!allLive(handle, activation) || !activation->set ||
                     !describe(convolution, xDesc, wDesc, problem) || !isOutput(problem, yDesc) ||
                     !isOutput(problem, zDesc) || !isDevice(z, zDesc->bytes()) ||
                     !isSet(biasDesc) || biasDesc->c != problem.k ||
                     biasDesc->elements() != std::size_t{1} * problem.k ||
                     !isDevice(bias, biasDesc->bytes()) ||
                     overlap(bias, biasDesc->bytes(), y, yDesc->bytes())) {
                   return CUDNN_STATUS_BAD_PARAM;
                 }
                 if (const auto status = checkPlain(alpha1, alpha2)) return status;
                 if (activation->nan != CUDNN_NOT_PROPAGATE_NAN) return CUDNN_STATUS_NOT_SUPPORTED;
                 return convolve(algorithm, problem, *xDesc, *wDesc, *yDesc,
                                 {static_cast<const float*>(x), static_cast<const float*>(w),
                                  static_cast<const float*>(bias), static_cast<float*>(y),
                                  workspace, workspaceBytes});
               });
}
