#include "vector_code.inc.h"

const host_device::detail::VectorCode host_device::detail::avx512Code =
    host_device::detail::Code<16, 8>::table;
