/// @file
/// The part of cuDNN that the library calls, on the CPU. Names, signatures and values are those of
/// cuDNN 7. Tensors are 32-bit float, NCHW, packed, in device memory; blending factors are floats
/// in host memory. Differences from the real library are listed in platform/host/README.md.
#pragma once

#include <cstddef>

typedef enum {
  CUDNN_STATUS_SUCCESS = 0,
  CUDNN_STATUS_NOT_INITIALIZED = 1,
  CUDNN_STATUS_ALLOC_FAILED = 2,
  CUDNN_STATUS_BAD_PARAM = 3,
  CUDNN_STATUS_INTERNAL_ERROR = 4,
  CUDNN_STATUS_INVALID_VALUE = 5,
  CUDNN_STATUS_ARCH_MISMATCH = 6,
  CUDNN_STATUS_MAPPING_ERROR = 7,
  CUDNN_STATUS_EXECUTION_FAILED = 8,
  CUDNN_STATUS_NOT_SUPPORTED = 9
} cudnnStatus_t;

typedef enum { CUDNN_DATA_FLOAT = 0 } cudnnDataType_t;
typedef enum { CUDNN_TENSOR_NCHW = 0 } cudnnTensorFormat_t;
typedef enum { CUDNN_NOT_PROPAGATE_NAN = 0, CUDNN_PROPAGATE_NAN = 1 } cudnnNanPropagation_t;
typedef enum { CUDNN_CONVOLUTION = 0, CUDNN_CROSS_CORRELATION = 1 } cudnnConvolutionMode_t;
typedef enum {
  CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM = 0,
  CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_PRECOMP_GEMM = 1,
  CUDNN_CONVOLUTION_FWD_ALGO_GEMM = 2,
  CUDNN_CONVOLUTION_FWD_ALGO_DIRECT = 3,
  CUDNN_CONVOLUTION_FWD_ALGO_FFT = 4,
  CUDNN_CONVOLUTION_FWD_ALGO_FFT_TILING = 5,
  CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD = 6,
  CUDNN_CONVOLUTION_FWD_ALGO_WINOGRAD_NONFUSED = 7
} cudnnConvolutionFwdAlgo_t;
typedef enum {
  CUDNN_CONVOLUTION_FWD_NO_WORKSPACE = 0,
  CUDNN_CONVOLUTION_FWD_PREFER_FASTEST = 1,
  CUDNN_CONVOLUTION_FWD_SPECIFY_WORKSPACE_LIMIT = 2
} cudnnConvolutionFwdPreference_t;
typedef enum { CUDNN_ACTIVATION_SIGMOID = 0, CUDNN_ACTIVATION_RELU = 1 } cudnnActivationMode_t;
typedef enum {
  CUDNN_POOLING_MAX = 0,
  CUDNN_POOLING_AVERAGE_COUNT_INCLUDE_PADDING = 1,
  CUDNN_POOLING_AVERAGE_COUNT_EXCLUDE_PADDING = 2
} cudnnPoolingMode_t;
typedef enum { CUDNN_LRN_CROSS_CHANNEL_DIM1 = 0 } cudnnLRNMode_t;
typedef enum {
  CUDNN_SOFTMAX_FAST = 0,
  CUDNN_SOFTMAX_ACCURATE = 1,
  CUDNN_SOFTMAX_LOG = 2
} cudnnSoftmaxAlgorithm_t;
typedef enum { CUDNN_SOFTMAX_MODE_INSTANCE = 0, CUDNN_SOFTMAX_MODE_CHANNEL = 1 } cudnnSoftmaxMode_t;

typedef enum {
  CUDNN_BATCHNORM_PER_ACTIVATION = 0,
  CUDNN_BATCHNORM_SPATIAL = 1
} cudnnBatchNormMode_t;

typedef struct cudnnContext* cudnnHandle_t;
typedef struct cudnnTensorStruct* cudnnTensorDescriptor_t;
typedef struct cudnnFilterStruct* cudnnFilterDescriptor_t;
typedef struct cudnnConvolutionStruct* cudnnConvolutionDescriptor_t;
typedef struct cudnnPoolingStruct* cudnnPoolingDescriptor_t;
typedef struct cudnnLRNStruct* cudnnLRNDescriptor_t;
typedef struct cudnnActivationStruct* cudnnActivationDescriptor_t;

size_t cudnnGetVersion(void);
const char* cudnnGetErrorString(cudnnStatus_t status);
cudnnStatus_t cudnnCreate(cudnnHandle_t* handle);
cudnnStatus_t cudnnDestroy(cudnnHandle_t handle);

cudnnStatus_t cudnnCreateTensorDescriptor(cudnnTensorDescriptor_t* descriptor);
cudnnStatus_t cudnnSetTensor4dDescriptor(cudnnTensorDescriptor_t descriptor,
                                         cudnnTensorFormat_t format, cudnnDataType_t type, int n,
                                         int c, int h, int w);
cudnnStatus_t cudnnDestroyTensorDescriptor(cudnnTensorDescriptor_t descriptor);

cudnnStatus_t cudnnCreateFilterDescriptor(cudnnFilterDescriptor_t* descriptor);
cudnnStatus_t cudnnSetFilter4dDescriptor(cudnnFilterDescriptor_t descriptor, cudnnDataType_t type,
                                         cudnnTensorFormat_t format, int k, int c, int h, int w);
cudnnStatus_t cudnnDestroyFilterDescriptor(cudnnFilterDescriptor_t descriptor);

cudnnStatus_t cudnnCreateConvolutionDescriptor(cudnnConvolutionDescriptor_t* descriptor);
cudnnStatus_t cudnnSetConvolution2dDescriptor(cudnnConvolutionDescriptor_t descriptor, int padH,
                                              int padW, int strideH, int strideW, int dilationH,
                                              int dilationW, cudnnConvolutionMode_t mode,
                                              cudnnDataType_t computeType);
cudnnStatus_t cudnnDestroyConvolutionDescriptor(cudnnConvolutionDescriptor_t descriptor);
cudnnStatus_t cudnnGetConvolution2dForwardOutputDim(cudnnConvolutionDescriptor_t convolution,
                                                    cudnnTensorDescriptor_t input,
                                                    cudnnFilterDescriptor_t filter, int* n, int* c,
                                                    int* h, int* w);
cudnnStatus_t cudnnGetConvolutionForwardAlgorithm(cudnnHandle_t handle, cudnnTensorDescriptor_t x,
                                                  cudnnFilterDescriptor_t w,
                                                  cudnnConvolutionDescriptor_t convolution,
                                                  cudnnTensorDescriptor_t y,
                                                  cudnnConvolutionFwdPreference_t preference,
                                                  size_t memoryLimit,
                                                  cudnnConvolutionFwdAlgo_t* algorithm);
cudnnStatus_t cudnnConvolutionForward(cudnnHandle_t handle, const void* alpha,
                                      cudnnTensorDescriptor_t xDesc, const void* x,
                                      cudnnFilterDescriptor_t wDesc, const void* w,
                                      cudnnConvolutionDescriptor_t convolution,
                                      cudnnConvolutionFwdAlgo_t algorithm, void* workspace,
                                      size_t workspaceBytes, const void* beta,
                                      cudnnTensorDescriptor_t yDesc, void* y);
/// y = activation(alpha1 · conv(x) + alpha2 · z + bias).
cudnnStatus_t cudnnConvolutionBiasActivationForward(
    cudnnHandle_t handle, const void* alpha1, cudnnTensorDescriptor_t xDesc, const void* x,
    cudnnFilterDescriptor_t wDesc, const void* w, cudnnConvolutionDescriptor_t convolution,
    cudnnConvolutionFwdAlgo_t algorithm, void* workspace, size_t workspaceBytes, const void* alpha2,
    cudnnTensorDescriptor_t zDesc, const void* z, cudnnTensorDescriptor_t biasDesc,
    const void* bias, cudnnActivationDescriptor_t activation, cudnnTensorDescriptor_t yDesc,
    void* y);
/// c = alpha · a + beta · c; each extent of a equals that of c or is 1.
cudnnStatus_t cudnnAddTensor(cudnnHandle_t handle, const void* alpha, cudnnTensorDescriptor_t aDesc,
                             const void* a, const void* beta, cudnnTensorDescriptor_t cDesc,
                             void* c);

cudnnStatus_t cudnnCreatePoolingDescriptor(cudnnPoolingDescriptor_t* descriptor);
cudnnStatus_t cudnnSetPooling2dDescriptor(cudnnPoolingDescriptor_t descriptor,
                                          cudnnPoolingMode_t mode, cudnnNanPropagation_t nan,
                                          int windowH, int windowW, int padH, int padW, int strideH,
                                          int strideW);
cudnnStatus_t cudnnDestroyPoolingDescriptor(cudnnPoolingDescriptor_t descriptor);
cudnnStatus_t cudnnPoolingForward(cudnnHandle_t handle, cudnnPoolingDescriptor_t pooling,
                                  const void* alpha, cudnnTensorDescriptor_t xDesc, const void* x,
                                  const void* beta, cudnnTensorDescriptor_t yDesc, void* y);

cudnnStatus_t cudnnCreateLRNDescriptor(cudnnLRNDescriptor_t* descriptor);
cudnnStatus_t cudnnSetLRNDescriptor(cudnnLRNDescriptor_t descriptor, unsigned n, double alpha,
                                    double beta, double k);
cudnnStatus_t cudnnDestroyLRNDescriptor(cudnnLRNDescriptor_t descriptor);
cudnnStatus_t cudnnLRNCrossChannelForward(cudnnHandle_t handle, cudnnLRNDescriptor_t lrn,
                                          cudnnLRNMode_t mode, const void* alpha,
                                          cudnnTensorDescriptor_t xDesc, const void* x,
                                          const void* beta, cudnnTensorDescriptor_t yDesc, void* y);

/// Describes the parameters of `x`: one value per channel.
cudnnStatus_t cudnnDeriveBNTensorDescriptor(cudnnTensorDescriptor_t derived,
                                            cudnnTensorDescriptor_t x, cudnnBatchNormMode_t mode);
/// y = scale · (x - mean) / sqrt(variance + epsilon) + bias.
cudnnStatus_t cudnnBatchNormalizationForwardInference(
    cudnnHandle_t handle, cudnnBatchNormMode_t mode, const void* alpha, const void* beta,
    cudnnTensorDescriptor_t xDesc, const void* x, cudnnTensorDescriptor_t yDesc, void* y,
    cudnnTensorDescriptor_t parameters, const void* scale, const void* bias, const void* mean,
    const void* variance, double epsilon);

cudnnStatus_t cudnnCreateActivationDescriptor(cudnnActivationDescriptor_t* descriptor);
cudnnStatus_t cudnnSetActivationDescriptor(cudnnActivationDescriptor_t descriptor,
                                           cudnnActivationMode_t mode, cudnnNanPropagation_t nan,
                                           double coefficient);
cudnnStatus_t cudnnDestroyActivationDescriptor(cudnnActivationDescriptor_t descriptor);
cudnnStatus_t cudnnActivationForward(cudnnHandle_t handle, cudnnActivationDescriptor_t activation,
                                     const void* alpha, cudnnTensorDescriptor_t xDesc,
                                     const void* x, const void* beta, cudnnTensorDescriptor_t yDesc,
                                     void* y);
cudnnStatus_t cudnnSoftmaxForward(cudnnHandle_t handle, cudnnSoftmaxAlgorithm_t algorithm,
                                  cudnnSoftmaxMode_t mode, const void* alpha,
                                  cudnnTensorDescriptor_t xDesc, const void* x, const void* beta,
                                  cudnnTensorDescriptor_t yDesc, void* y);
