/// @file
/// All networks, the choice of the device, what is thrown, and the version. Only
/// facezoo/listener.h is included by itself.
#pragma once

#include "DexpressionNet.h"
#include "FANet.h"
#include "GPU.h"
#include "GoogLeNet.h"
#include "GoogLeNetBN.h"
#include "GoogLeNet_FAA1ch.h"
#include "GoogLeNet_FAA3ch.h"
#include "GoogLeNet_FAA3ch_12tasks.h"
#include "LCNN29.h"
#include "facezoo/errors.h"
#include "facezoo/version.h"
