/// @file
/// The parts of the extension module. Each adds its classes and functions to the module.
#pragma once

#include <nanobind/nanobind.h>

void bindTables(nanobind::module_& module);
void bindWeights(nanobind::module_& module);
