/// @file
/// Control over the host platform, for tests and tools: which devices it shows, who watches its
/// calls, which call fails, and what is alive. Nothing here is needed to use the library.
///
/// All functions may be called from any thread; an observer runs on the thread that made the call.
#pragma once

#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cudnn.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace host_device {

struct SimulatedDevice {
  std::string name;
  int major;  ///< compute capability
  int minor;
  std::size_t totalGlobalMem;  ///< bytes; cudaMalloc beyond it is out of memory
};

/// Replaces the table of devices and makes device 0 current on the calling thread. Live allocations
/// stay valid. At load the table holds one device: this machine, with its physical memory.
void setDevices(std::vector<SimulatedDevice> devices);
void restoreDefaultDevices();

/// One call to the platform, as an observer sees it before the call does its work.
struct Call {
  const char* name;                     ///< the function's own name, as "cudaMalloc"
  std::vector<std::int64_t> arguments;  ///< those that matter, listed in platform/host/README.md
};

/// Called for every call; an empty function ends the observation. The observer may call the
/// platform itself; those calls are not observed.
void setObserver(std::function<void(const Call&)> observer);

/// A planned failure. The failing call does nothing and returns the status of its library.
/// Calls that only report (cudaGetLastError, the error strings, the versions) never fail.
struct Fault {
  std::size_t at = 1;       ///< the call that fails, counted from 1 since setFault
  std::string name;         ///< count only calls of this name; empty: all calls
  bool fromThenOn = false;  ///< all later calls fail too
  cudaError_t cuda = cudaErrorUnknown;
  cudnnStatus_t cudnn = CUDNN_STATUS_INTERNAL_ERROR;
  cublasStatus_t cublas = CUBLAS_STATUS_INTERNAL_ERROR;
};
void setFault(const Fault& fault);
void clearFault();
/// The names of the calls that failed since the last setFault, in order.
std::vector<std::string> raisedFaults();

/// What has been created and not yet released.
struct Live {
  std::size_t allocations;
  std::size_t bytes;
  std::size_t handles;      ///< cuDNN and cuBLAS handles
  std::size_t descriptors;  ///< cuDNN descriptors of all kinds
};
Live live();

/// Fills every block that cudaMalloc hands out from now on with signalling NaNs, so that a read of
/// what nobody wrote shows in the results.
void poisonFreshMemory(bool on);

/// Lets a forked process go on with what its parent had. It must be the work of one thread, before
/// and after the fork. Otherwise every call in it fails, as on a card.
void keepAfterFork(bool on);

/// What everything is computed with, the library's own kernels included. The baseline is what all
/// processors of a family have: SSE2 (x86-64) or NEON (AArch64). AVX2 stands for AVX2 and FMA,
/// AVX-512 for its foundation and its byte and word instructions.
enum class InstructionSet { baseline, avx2, avx512 };
/// The one in use; at load the best that this machine has.
InstructionSet instructionSet();
/// Changes it for the calls that follow. False, and nothing changed, if this machine lacks it.
bool useInstructionSet(InstructionSet set);
/// Changes it to what the environment variable FACEZOO_INSTRUCTION_SET says: "baseline", "avx2" or
/// "avx512". True, and nothing changed, if it is not set; false if this machine lacks the set, or
/// there is none of that name. The platform does not look at the variable by itself.
bool useInstructionSetOfEnvironment();

/// Lets at most so many threads, the calling one included, share the work of a call; 0: one for
/// each processor. At load it is what the environment variable OMP_NUM_THREADS says.
void useThreads(int threads);

}  // namespace host_device
