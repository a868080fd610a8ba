#include "facezoo/network.h"

#include "buffer_pool.h"
#include "check.h"
#include "document.h"
#include "facezoo/errors.h"
#include "facezoo/listener.h"
#include "file_bytes.h"
#include "layer_factory.h"
#include "layers/l2_norm.h"
#include "network_table.h"

#include <cstdint>
#include <fstream>
#include <utility>

int Network::network_count = 0;

namespace {

/// Reads a weight file. A directory opens but cannot be read: it counts as not found.
facezoo::FileBytes readFile(const char* path) {
  std::ifstream file;
  if (path != nullptr) file.open(path, std::ios::in | std::ios::binary);
  facezoo::FileBytes bytes;
  if (file.is_open()) bytes = facezoo::readAll(file, path);
  if (!file.is_open() || file.bad()) {
    facezoo::report(stdout, "Weight file not found.\n");
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

Network::~Network() {
  const bool movedAway = unpacked.zone() == nullptr;
  if (movedAway || --network_count > 0) return;
  destroyPool();
  facezoo::succeeds(LayerBase::releaseAll);
}

void Network::openMsgPack(const char* path, msgpack::v1::unpacked& out) {
  msgpack::v1::unpacked document = facezoo::parseDocument(readFile(path));
  if (facezoo::Listener* const listener = facezoo::listener()) listener->onDocument(*document);
  out = std::move(document);
}

void Network::build(const facezoo::NetworkTable& table, int maxBatch, const std::string& prefix,
                    std::initializer_list<Holders> holders) {
  channels = table.channels;
  width = table.width;
  height = table.height;
  perImageBytes = table.perImageBytes;
  bufferCount = table.bufferCount;
  outputDim = table.outputDim;
  const facezoo::LayerRow* row = table.layers.begin();
  for (const Holders& group : holders) {
    for (std::size_t i = 0; i < group.count; ++i) {
      group.first[i] = facezoo::createLayer(*row++, prefix, weights);
    }
  }
  const std::int64_t blockBytes = std::int64_t{maxBatch} * perImageBytes;
  if (blockBytes != static_cast<int>(blockBytes)) throw NO_BLOCK;
  preparePool(static_cast<int>(blockBytes), bufferCount);
}

Tensor Network::copyIn(const void* images, int batch, const char* file, int line) const {
  if (unpacked.zone() == nullptr) throw BAD_WEIGHTS;
  Tensor tensor({batch, height, width, channels});
  const std::size_t bytes = static_cast<std::size_t>(batch) * height * width * channels;
  CheckCuda(cudaMemcpy(tensor.base->data, images, bytes, cudaMemcpyDeviceToDevice), file, line);
  return tensor;
}

void Network::copyOut(const Tensor& result, float* out, cudaMemcpyKind kind, const char* file,
                      int line) {
  const int4 shape = result.base->shape;
  const std::size_t floats = static_cast<std::size_t>(shape.x) * shape.y * shape.z * shape.w;
  CheckCuda(cudaMemcpy(out, result.base->data, floats * sizeof(float), kind), file, line);
}

void Network::copyNorms(const Tensor& features, float* out, const char* file, int line) {
  if (out == nullptr) return;
  copyOut(L2Norm()(features), out, cudaMemcpyDeviceToHost, file, line);
}
