/// @file
/// L2 norms: the launcher of their kernel.
#pragma once

namespace facezoo {

/// out[n] = sqrt(sum of in[n · dim + j]² over 0 <= j < dim), for 0 <= n < count, in one launch on
/// the default stream, which is not checked. The sum is a chain of fused multiply-adds in the order
/// of j, so that its bits do not depend on the machine.
///
/// @param in device memory, count × dim floats
/// @param out device memory, count floats
void l2Norms(int count, int dim, const float* in, float* out);

}  // namespace facezoo
