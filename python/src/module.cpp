#include "module.h"

NB_MODULE(_core, module) {
  // Objects may be alive at the end of a process, which is no fault to report.
  nanobind::set_leak_warnings(false);
  module.doc() = "What the package facezoo has in C++.";
  module.attr("version") = FACEZOO_VERSION_TEXT;
  bindProcess();
  bindErrors(module);
  bindTables(module);
  bindInfo(module);
  bindNetworks(module);
  bindWeights(module);
}
