#include "module.h"

void bindWeights(nanobind::module_&) {}
