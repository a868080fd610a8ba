/// @file
/// The base of every layer and network, and the holder in which networks keep their layers.
#pragma once

#include "export.h"
#include "message_pack.h"
#include "tensor.h"

#include <cudnn.h>

#include <cstddef>
#include <string>

/// A layer maps input tensors to a new tensor from the pool and leaves its inputs alone. All layers
/// share one cuDNN handle and one workspace, created by the first layer constructed and released
/// with the last network. All work goes to the default stream.
class FACEZOO_EXPORT LayerBase {
 public:
  /// Creates the shared context if there is none.
  /// @throws cudnnStatus_t, cudaError
  LayerBase();
  /// @{
  /// The base has nothing of its own to copy.
  LayerBase(const LayerBase&) = default;
  LayerBase& operator=(const LayerBase&) = default;
  /// @}
  virtual ~LayerBase() = default;

  /// The identity: a second handle to the same block.
  virtual Tensor operator()(const Tensor& in) { return in; }

  /// Copies one weight array to device memory.
  ///
  /// @param weights the root of the weight document, a map of names to raw little-endian floats
  /// @param name full name of the array
  /// @param bytes its expected length
  /// @param dst device memory of at least `bytes` bytes
  /// @throws NetworkError 1 if the root is not a map, or the array is absent or of another length
  ///         or type; @throws cudaError
  void readWeight(msgpack::v1::object& weights, std::string name, int bytes, void* dst);

  /// Releases the shared context; the next layer constructed creates it again. The last network's
  /// destructor does it without a throw; a constructor that fails before its network counts leaves
  /// it to the host or to the next network.
  /// @return 0; @throws cudaError if the workspace cannot be released, and stays
  static int releaseAll();

  static cudnnHandle_t handle_;  ///< of all layers; null while there is no shared context
  static void* workspace_;       ///< device memory, `workspaceSize` bytes
  static bool initialized_;      ///< whether there is a shared context

 protected:
  std::size_t workspaceSize;  ///< bytes
};

/// Owns one layer. Copying transfers it: the source is left empty, so each layer is deleted once.
class FACEZOO_EXPORT Layer {
 public:
  Layer() = default;  ///< empty
  /// @{
  /// Takes the other's layer. What the holder had is deleted.
  Layer(const Layer& other) : layer(other.layer) { other.layer = nullptr; }
  Layer& operator=(const Layer& other) {
    if (this != &other) {
      delete layer;
      layer = other.layer;
      other.layer = nullptr;
    }
    return *this;
  }
  /// @}
  /// Takes ownership; the holder must be empty.
  Layer& operator=(LayerBase* p) {
    layer = p;
    return *this;
  }
  virtual ~Layer() { delete layer; }

  /// The held layer's result; the input itself if there is none.
  virtual Tensor operator()(const Tensor& in) { return layer ? layer->operator()(in) : in; }

 private:
  mutable LayerBase* layer = nullptr;
};
