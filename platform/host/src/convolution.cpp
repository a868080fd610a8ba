/// @file
/// The convolution calls, the rules that choose an algorithm, and the last resort among them.
#include "convolution.h"

#include <cudnn.h>

#include <limits>
#include <new>
#include <utility>

#include "instrumentation.h"

namespace host_device {
namespace detail {

std::size_t Problem::rowGroups() const { return dividedUp(k, vectorCode().rows); }

PackedFilter::PackedFilter(std::size_t floats) : data_(allocateBlock(floats * sizeof(float))) {
  if (!data_) throw std::bad_alloc();
}

std::shared_ptr<PackedFilter> packedFilter(cudnnConvolutionFwdAlgo_t id, const Problem& problem,
                                           const float* w, std::size_t floats,
                                           void (*pack)(const Problem&, const float*, float*)) {
  const DerivedKey key = {address(w),
                          id,
                          vectorCode().lanes,
                          problem.c,
                          problem.k,
                          problem.vertical.kernel,
                          problem.horizontal.kernel};
  if (auto found = findDerived(w, key)) return std::static_pointer_cast<PackedFilter>(found);
  auto made = std::make_shared<PackedFilter>(floats);
  pack(problem, w, made->data());
  storeDerived(w, key, made);
  return made;
}

namespace {

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

void runLoops(const Problem& problem, const Operands& operands) {
  const std::size_t plane = problem.outputPlane();
#pragma omp parallel for num_threads(teamSize()) schedule(static) collapse(2)
  for (int n = 0; n < problem.n; ++n) {
    for (int k = 0; k < problem.k; ++k) {
      float* y = operands.y + (std::size_t{1} * n * problem.k + k) * plane;
      convolvePlane(problem, operands.x + n * problem.c * problem.inputPlane(),
                    operands.w + k * problem.depth(), y);
      if (operands.bias) vectorCode().store(y, plane, 1, plane, operands.bias + k, 0, y, plane);
    }
  }
}

std::size_t noWorkspace(const Problem&) { return 0; }

}  // namespace

const Algorithm loops = {CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM, always, always, noWorkspace,
                         runLoops};

namespace {

/// The query takes the first that supports the shape, pays, and fits the limit.
const Algorithm* const algorithms[] = {&winograd, &panels, &loops};

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
             {x->w, w->w, convolution->padW, convolution->strideW, 0}};
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
  for (const Algorithm* algorithm : algorithms) {
    if (algorithm->id != id) continue;
    if (!algorithm->supports(problem)) break;
    const std::size_t needed = algorithm->workspaceBytes(problem);
    if (operands.workspaceBytes < needed ||
        (needed > 0 && !writeDevice(operands.workspace, operands.workspaceBytes))) {
      return CUDNN_STATUS_BAD_PARAM;
    }
    writeDevice(operands.y, yDesc.bytes());
    algorithm->run(problem, operands);
    return CUDNN_STATUS_SUCCESS;
  }
  return CUDNN_STATUS_NOT_SUPPORTED;
}

}  // namespace
}  // namespace detail
}  // namespace host_device

using namespace host_device::detail;

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
                 for (const Algorithm* candidate : algorithms) {
                   if (candidate->supports(problem) && candidate->pays(problem) &&
                       candidate->workspaceBytes(problem) <= limit) {
                     *algorithm = candidate->id;
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
