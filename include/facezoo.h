/// @file
/// Everything the library offers.
#pragma once

#include "DexpressionNet.h"
#include "GPU.h"
#include "errors.h"
