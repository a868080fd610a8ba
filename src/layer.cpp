#include "facezoo/layer.h"

#include "check.h"
#include "facezoo/errors.h"

#include <cstring>
#include <utility>

cudnnHandle_t LayerBase::handle_ = nullptr;
void* LayerBase::workspace_ = nullptr;
bool LayerBase::initialized_ = false;

LayerBase::LayerBase() : workspaceSize(std::size_t{128} << 20) {
  if (!initialized_) {
    // An attempt that could not allocate the workspace has left its handle, which is replaced.
    if (handle_ != nullptr) cudnnDestroy(std::exchange(handle_, nullptr));
    CheckCudnn(cudnnCreate(&handle_));
    CheckCuda(cudaMalloc(&workspace_, workspaceSize));
    initialized_ = true;
  } else if (handle_ == nullptr) {
    // A release that failed half-way has destroyed the handle and left the workspace.
    CheckCudnn(cudnnCreate(&handle_));
  }
}

namespace {

/// Payload length of a value in the weight map, 0 for types that have none.
int payloadBytes(const msgpack::v1::object& value) {
  switch (value.type) {
    case msgpack::v1::type::STR:
      return static_cast<int>(value.via.str.size);
    case msgpack::v1::type::BIN:
      return static_cast<int>(value.via.bin.size);
    case msgpack::v1::type::EXT:
      return static_cast<int>(value.via.ext.size);
    default:
      return 0;
  }
}

bool isString(const msgpack::v1::object& value, const std::string& text) {
  return value.type == msgpack::v1::type::STR && value.via.str.size == text.size() &&
         std::memcmp(value.via.str.ptr, text.data(), text.size()) == 0;
}

}  // namespace

int LayerBase::releaseAll() {
  if (!initialized_) return 0;
  if (handle_ != nullptr) cudnnDestroy(handle_);  // null after a release that failed below
  handle_ = nullptr;
  CheckCuda(cudaFree(workspace_));
  workspace_ = nullptr;
  initialized_ = false;
  return 0;
}

void LayerBase::readWeight(msgpack::v1::object& weights, std::string name, int bytes, void* dst) {
  if (weights.type != msgpack::v1::type::MAP) throw BAD_WEIGHTS;
  const msgpack::v1::object_map& map = weights.via.map;
  for (const msgpack::v1::object_kv* entry = map.ptr; entry != map.ptr + map.size; ++entry) {
    if (!isString(entry->key, name)) continue;
    const int found = payloadBytes(entry->val);
    if (entry->val.type != msgpack::v1::type::STR || found != bytes) {
      facezoo::report(stdout, "weight size mismatch. %s %d %d\n", name.c_str(), found, bytes);
      throw BAD_WEIGHTS;
    }
    CheckCuda(cudaMemcpy(dst, entry->val.via.str.ptr, static_cast<std::size_t>(bytes),
                         cudaMemcpyHostToDevice));
    return;
  }
  facezoo::report(stdout, "%s not found.\n", name.c_str());
  throw BAD_WEIGHTS;
}
