// A safetensors file from its bytes to the weight file that is made of it.
#include "safetensors.h"
#include "failure.h"
#include "memory_file.h"
#include "small_network.h"
#include "weight_exchange.h"
#include "weight_names.h"

#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static facezoo::fuzz::MemoryFile file;
  try {
    const TensorFile tensors(file.fill(data, size));
    const TensorSelection selection =
        selectTensors(tensors.tensors(), facezoo::test::smallNetwork, "", {});
    proposeNames(tensors.tensors(), facezoo::test::smallNetwork, "");
    std::ostringstream out;
    writeWeights(selection.arrays, out);
    const std::string written = out.str();
    const WeightDocument readBack(
        file.fill(reinterpret_cast<const std::uint8_t*>(written.data()), written.size()));
    requireEqual(selection.arrays, tensorsOf(readBack, facezoo::test::smallNetwork, ""));
  } catch (const Failure&) {  // as documented
  }
  return 0;
}
