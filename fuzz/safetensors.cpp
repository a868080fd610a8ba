// Reads a safetensors file of any bytes and makes a weight file of it, which must read back as the
// same arrays.
#include "client/safetensors.h"
#include "client/failure.h"
#include "client/weight_exchange.h"
#include "client/weight_names.h"
#include "memory_file.h"
#include "small_network.h"

#include <sstream>

using namespace facezoo;

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
