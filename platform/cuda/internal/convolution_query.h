/// @file
/// cuDNN 8 dropped cudnnGetConvolutionForwardAlgorithm. It is rebuilt here on the _v7 query, so
/// that the library is written once, for the older name.
#pragma once

#include <cudnn.h>

#include <vector>

#if CUDNN_MAJOR >= 8

enum cudnnConvolutionFwdPreference_t {
  CUDNN_CONVOLUTION_FWD_NO_WORKSPACE = 0,
  CUDNN_CONVOLUTION_FWD_PREFER_FASTEST = 1,
  CUDNN_CONVOLUTION_FWD_SPECIFY_WORKSPACE_LIMIT = 2
};

namespace facezoo {

/// The first of `count` candidates, which are in the order of their speed, that runs, computes in
/// plain 32-bit float and fits `memoryLimit` bytes of workspace; implicit GEMM, which needs none,
/// if there is no such. The list may name algorithms that do not run, do not fit or use another
/// arithmetic, and what it says of memory may belong to another arithmetic than the descriptor's.
///
/// @param needsAtMost needsAtMost(algorithm, bytes): whether the algorithm runs in so much
/// workspace
template <class NeedsAtMost>
cudnnConvolutionFwdAlgo_t firstThatFits(const cudnnConvolutionFwdAlgoPerf_t* candidates, int count,
                                        size_t memoryLimit, const NeedsAtMost& needsAtMost) {
  for (int i = 0; i < count; ++i) {
    const cudnnConvolutionFwdAlgoPerf_t& candidate = candidates[i];
    const bool plain =
        candidate.mathType == CUDNN_FMA_MATH || candidate.mathType == CUDNN_DEFAULT_MATH;
    if (candidate.status == CUDNN_STATUS_SUCCESS && plain && candidate.memory <= memoryLimit &&
        needsAtMost(candidate.algo, memoryLimit)) {
      return candidate.algo;
    }
  }
  return CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM;
}

/// Asks for the whole list, which may name an algorithm once for each math type, and takes
/// `firstThatFits`.
///
/// @param maxCount maxCount(rows): how many rows the list has at most
/// @param list list(capacity, count, rows): the list
template <class MaxCount, class List, class NeedsAtMost>
cudnnStatus_t chooseFromList(const MaxCount& maxCount, const List& list,
                             const NeedsAtMost& needsAtMost, size_t memoryLimit,
                             cudnnConvolutionFwdAlgo_t* algorithm) {
  int count = 0;
  cudnnStatus_t status = maxCount(&count);
  if (status != CUDNN_STATUS_SUCCESS) return status;
  std::vector<cudnnConvolutionFwdAlgoPerf_t> candidates(static_cast<size_t>(count));
  status = list(count, &count, candidates.data());
  if (status != CUDNN_STATUS_SUCCESS) return status;
  *algorithm = firstThatFits(candidates.data(), count, memoryLimit, needsAtMost);
  return CUDNN_STATUS_SUCCESS;
}

}  // namespace facezoo

/// The fastest forward algorithm that runs, fits `memoryLimit` bytes of workspace and computes in
/// plain 32-bit float.
///
/// Default math may use TF32 from cuDNN 8 on, so the descriptor is put into plain fp32 math first.
inline cudnnStatus_t cudnnGetConvolutionForwardAlgorithm(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x, cudnnFilterDescriptor_t w,
    cudnnConvolutionDescriptor_t convolution, cudnnTensorDescriptor_t y,
    cudnnConvolutionFwdPreference_t /*preference*/, size_t memoryLimit,
    cudnnConvolutionFwdAlgo_t* algorithm) {
  const cudnnStatus_t status = cudnnSetConvolutionMathType(convolution, CUDNN_FMA_MATH);
  if (status != CUDNN_STATUS_SUCCESS) return status;
  const auto maxCount = [&](int* rows) {
    return cudnnGetConvolutionForwardAlgorithmMaxCount(handle, rows);
  };
  const auto list = [&](int capacity, int* count, cudnnConvolutionFwdAlgoPerf_t* rows) {
    return cudnnGetConvolutionForwardAlgorithm_v7(handle, x, w, convolution, y, capacity, count,
                                                  rows);
  };
  const auto needsAtMost = [&](cudnnConvolutionFwdAlgo_t candidate, size_t limit) {
    size_t needed = 0;
    return cudnnGetConvolutionForwardWorkspaceSize(handle, x, w, convolution, y, candidate,
                                                   &needed) == CUDNN_STATUS_SUCCESS &&
           needed <= limit;
  };
  return facezoo::chooseFromList(maxCount, list, needsAtMost, memoryLimit, algorithm);
}

#endif
