/// @file
/// What the algorithms share, and the last resort among them.
#include "algorithm.h"

namespace host_device {
namespace {

void runLoops(const Problem& problem, const Operands& operands) {
  const std::size_t plane = problem.outputPlane();
  const Kernels& kernel = kernels();
  const std::size_t planes = std::size_t{1} * problem.n * problem.k;
  forRanges(planes, problem.depth() * plane, [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      const std::size_t n = i / problem.k, k = i % problem.k;
      float* const y = operands.y + i * plane;
      kernel.loops.convolvePlane(problem.vertical, problem.horizontal, problem.c,
                                 operands.x + n * problem.c * problem.inputPlane(),
                                 operands.w + k * problem.depth(), y);
      if (operands.bias) {
        kernel.products.store(y, plane, 1, static_cast<int>(plane), operands.bias + k, 0, y, plane);
      }
    }
  });
}

std::size_t noWorkspace(const Problem&) { return 0; }

}  // namespace

const Algorithm loops = {CUDNN_CONVOLUTION_FWD_ALGO_IMPLICIT_GEMM, always, always, noWorkspace,
                         runLoops};

}  // namespace host_device
