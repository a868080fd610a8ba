#include "kernels.h"

namespace host_device::HOST_DEVICE_SET {

const Kernels kernels = {products, winograd, loops, pooling, normalization, elements};

}  // namespace host_device::HOST_DEVICE_SET
