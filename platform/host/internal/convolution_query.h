/// @file
/// The convolution algorithm query, which the host platform offers under its cuDNN 7 name.
/// platform/cuda/internal/convolution_query.h rebuilds it where cuDNN dropped it.
#pragma once

#include <cudnn.h>
