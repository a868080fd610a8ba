// Functions of a host under the names of the GPU libraries' calls. All of them fail, as the calls
// do without a driver.
#define FAILS(name) \
  extern "C" int name() { return 35; }

FAILS(cudaGetDeviceCount)
FAILS(cudaGetDeviceProperties)
FAILS(cudaSetDevice)
FAILS(cudaMalloc)
FAILS(cudaFree)
FAILS(cudaMemcpy)
FAILS(cudaMemcpy2D)
FAILS(cudaMemset)
FAILS(cudaLaunchKernel)
FAILS(cudnnCreate)
FAILS(cudnnDestroy)
FAILS(cudnnCreateTensorDescriptor)
FAILS(cudnnSetTensor4dDescriptor)
FAILS(cudnnConvolutionBiasActivationForward)
FAILS(cudnnPoolingForward)
FAILS(cudnnLRNCrossChannelForward)
FAILS(cudnnSoftmaxForward)
FAILS(cublasCreate_v2)
FAILS(cublasDestroy_v2)
FAILS(cublasSgemm_v2)
FAILS(cublasSgemv_v2)
