/// @file
/// The convolution calls, and the choice of an algorithm.
#include "convolution/algorithm.h"

#include <cudnn.h>

#include <limits>

#include "instrumentation.h"
#include "operands.h"

using namespace host_device;

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
                 if (preference > CUDNN_CONVOLUTION_FWD_SPECIFY_WORKSPACE_LIMIT) {
                   return CUDNN_STATUS_BAD_PARAM;
                 }
                 const std::size_t limit = preference == CUDNN_CONVOLUTION_FWD_NO_WORKSPACE ? 0
                                           : preference == CUDNN_CONVOLUTION_FWD_PREFER_FASTEST
                                               ? SIZE_MAX
                                               : memoryLimit;
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
