#include "client/failure.h"

#include "check.h"
#include "facezoo/errors.h"

#include <cerrno>
#include <new>
#include <system_error>

namespace facezoo {

namespace {

std::string describe() {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    return "out of memory";
  } catch (const std::exception& error) {
    return error.what();
  } catch (GPUError) {
    return "no usable CUDA device";
  } catch (NetworkError error) {
    return error == WEIGHT_FILE_NOT_FOUND ? "the weight file cannot be read"
                                          : "the weight file does not fit the network";
  } catch (TensorError) {
    return "the network's tensors do not fit its pool of device memory";
  } catch (cudaError status) {
    return std::string(cudaGetErrorString(status)) + " (CUDA error " + std::to_string(status) + ")";
  } catch (cudnnStatus_t status) {
    return std::string(cudnnGetErrorString(status)) + " (cuDNN)";
  } catch (cublasStatus_t status) {
    return "cuBLAS status " + std::to_string(status);
  } catch (...) {
    return "unknown failure";
  }
}

}  // namespace

void throwSystemFailure(const std::string& text) {
  throw Failure(text + ": " + std::generic_category().message(errno));
}

std::string describeException() noexcept {
  try {
    return describe();
  } catch (...) {
    return "out of memory";  // short enough for a string that allocates nothing
  }
}

}  // namespace facezoo
