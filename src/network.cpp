#include "network.h"

#include "errors.h"
#include "layer_factory.h"
#include "network_table.h"
#include "weight_scan.h"

#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <limits>
#include <utility>
#include <vector>

int Network::network_count = 0;

namespace {

/// All bytes of the file. A directory, which opens but cannot be read, is not found either.
std::vector<char> readFile(const char* path) {
  std::ifstream file;
  if (path != nullptr) file.open(path, std::ios::in | std::ios::binary);
  std::vector<char> bytes;
  constexpr std::size_t kChunk = std::size_t{1} << 20;
  for (std::size_t size = 0; file.is_open() && file.good();) {
    bytes.resize(size + kChunk);
    file.read(bytes.data() + size, kChunk);
    size += static_cast<std::size_t>(file.gcount());
    bytes.resize(size);
  }
  if (!file.is_open() || file.bad()) {
    std::printf("Weight file not found.\n");
    throw WEIGHT_FILE_NOT_FOUND;
  }
  return bytes;
}

}  // namespace

Network::Network(const char* path, std::string /*prefix*/) {
  openMsgPack(path, unpacked);
  weights = unpacked.get();
  ++network_count;
}

Network::Network(Network& other)
    : LayerBase(other),
      weights(other.weights),
      unpacked(std::move(other.unpacked)),
      channels(other.channels),
      width(other.width),
      height(other.height),
      perImageBytes(other.perImageBytes),
      bufferCount(other.bufferCount),
      outputDim(other.outputDim) {}

Network::~Network() noexcept(false) {  // NOLINT(bugprone-exception-escape)
  const bool movedAway = unpacked.zone() == nullptr;
  if (movedAway || --network_count > 0) return;
  if (std::uncaught_exceptions() == 0) {
    destroyPool();
    LayerBase::releaseAll();
    return;
  }
  // A second exception during unwinding would end the process: the first failure is the one that
  // the host hears of, and what cannot be released now is left for the next network's end.
  try {
    destroyPool();
  } catch (...) {  // NOLINT(bugprone-empty-catch)
  }
  try {
    LayerBase::releaseAll();
  } catch (...) {  // NOLINT(bugprone-empty-catch)
  }
}

void Network::openMsgPack(const char* path, msgpack::v1::unpacked& out) {
  const std::vector<char> bytes = readFile(path);
  facezoo::checkDocument(bytes.data(), bytes.size());
  std::size_t offset = 0;
  bool referenced = false;
  msgpack::unpack(out, bytes.data(), bytes.size(), offset, referenced);
}

void Network::build(const facezoo::NetworkTable& table, int maxBatch, const std::string& prefix,
                    Layer* layers) {
  channels = table.channels;
  width = table.width;
  height = table.height;
  perImageBytes = table.perImageBytes;
  bufferCount = table.bufferCount;
  outputDim = table.outputDim;
  const std::int64_t blockBytes = std::int64_t{maxBatch} * perImageBytes;
  if (blockBytes > std::numeric_limits<int>::max()) throw NO_BLOCK;
  for (const facezoo::LayerRow& layer : table.layers) {
    *layers++ = facezoo::createLayer(layer, prefix, weights);
  }
  preparePool(static_cast<int>(blockBytes), bufferCount);
}

Tensor Network::inputTensor(int batch) const {
  if (unpacked.zone() == nullptr) throw BAD_WEIGHTS;
  return Tensor({batch, height, width, channels});
}

std::size_t Network::inputBytes(int batch) const {
  return static_cast<std::size_t>(batch) * height * width * channels;
}
