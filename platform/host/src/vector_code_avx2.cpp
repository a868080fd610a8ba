#include "vector_code.inc.h"

const host_device::detail::VectorCode host_device::detail::avx2Code =
    host_device::detail::Code<8, 4>::table;
