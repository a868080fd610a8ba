#include "vector_code.inc.h"

const host_device::detail::VectorCode host_device::detail::baselineCode =
    host_device::detail::Code<4, 4>::table;
