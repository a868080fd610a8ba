#include "module.h"

NB_MODULE(_core, module) {
  module.doc() = "What the package facezoo has in C++.";
  module.attr("__version__") = FACEZOO_VERSION_TEXT;
  bindTables(module);
  bindWeights(module);
}
