// Constructs a small network from a weight file of any bytes. Whatever the answer, the device must
// hold afterwards what it held before.
#include "memory_file.h"
#include "small_network.h"

#include <host_device.h>
#include <msgpack.hpp>

#include <cstdio>
#include <sstream>

namespace {

using facezoo::test::SmallNetwork;

std::string validFile() {
  std::ostringstream bytes;
  msgpack::packer<std::ostringstream> packer(bytes);
  std::uint32_t count = 0;
  const auto eachWeight = [](const auto& visit) {
    facezoo::forEachWeight(facezoo::test::smallNetwork.layers, "", visit);
  };
  eachWeight([&](auto&&...) { ++count; });
  packer.pack_map(count);
  eachWeight([&](const std::string& name, std::size_t elements, auto&&...) {
    packer.pack(name);
    packer.pack(std::string(elements * sizeof(float), '\0'));
  });
  return bytes.str();
}

struct Probe : Network {
  static int count() { return network_count; }
};

/// Constructs a network that stays, so that not every input creates the shared context anew.
/// @return what the device holds then
host_device::Live prepare(facezoo::fuzz::MemoryFile& file) {
  if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
  const std::string valid = validFile();
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(valid.data());
  [[maybe_unused]] static const SmallNetwork& keeper =
      *new SmallNetwork(file.fill(bytes, valid.size()), 1, "");
  return host_device::live();
}

/// Ends the process by any exception but the documented ones.
void construct(const char* path) {
  try {
    const SmallNetwork network(path, 1, "");
  } catch (NetworkError error) {
    if (error != BAD_WEIGHTS) std::abort();
  } catch (const msgpack::v1::insufficient_bytes&) {
  } catch (const msgpack::v1::parse_error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static facezoo::fuzz::MemoryFile file;
  static const host_device::Live before = prepare(file);
  construct(file.fill(data, size));
  const host_device::Live after = host_device::live();
  const bool same = Probe::count() == 1 && after.allocations == before.allocations &&
                    after.bytes == before.bytes && after.descriptors == before.descriptors;
  if (!same) std::abort();
  return 0;
}
