/// @file
/// The parts of the extension module. Each adds its classes and functions to the module.
#pragma once

#include <nanobind/nanobind.h>

void bindErrors(nanobind::module_& module);
void bindInfo(nanobind::module_& module);
void bindNetworks(nanobind::module_& module);
void bindTables(nanobind::module_& module);
void bindWeights(nanobind::module_& module);

/// Lets the module know when the process is forked, and when it ends.
void bindProcess();
