/// @file
/// The base class of layers and networks, and the holder in which networks keep their layers.
#pragma once

#include "export.h"
#include "message_pack.h"
#include "tensor.h"

#include <cudnn.h>

#include <cstddef>
#include <string>

/// The base of all layers and networks. A layer computes one new tensor, in a block of the pool,
/// from its input tensors. All work goes to the default stream.
///
/// All objects share one context: a cuDNN handle, and a workspace of 128 MiB of device memory. The
/// first object's constructor creates it, and the last network's destructor releases it.
class FACEZOO_EXPORT LayerBase {
 public:
  /// Creates the shared context if there is none.
  /// @throws cudnnStatus_t, cudaError
  LayerBase();
  /// @{
  /// A copy has the same context; the base has nothing else to copy.
  LayerBase(const LayerBase&) = default;
  LayerBase& operator=(const LayerBase&) = default;
  /// @}
  virtual ~LayerBase() = default;

  /// Returns the input itself, as a second handle to the same block. Layers override this.
  virtual Tensor operator()(const Tensor& in) { return in; }

  /// Copies one array of a weight file to device memory.
  ///
  /// @param weights the root of the weight document, a map of names to raw little-endian floats
  /// @param name full name of the array, prefix included
  /// @param bytes the length that it must have
  /// @param dst device memory of at least `bytes` bytes
  /// @throws NetworkError 1 if the root is not a map, or the array is absent or of another length
  ///         or type
  /// @throws cudaError if the copy fails
  void readWeight(msgpack::v1::object& weights, std::string name, int bytes, void* dst);

  /// Releases the shared context; the next layer that is constructed creates it again. The last
  /// network's destructor calls this, and catches what it throws. A host may call it after a
  /// network's constructor has thrown: if the weight file could not be read and no other network is
  /// alive, the context stays until the next network uses it.
  ///
  /// @return 0
  /// @throws cudaError if the workspace cannot be released; it stays, and the next call tries again
  static int releaseAll();

  static cudnnHandle_t handle_;  ///< of all layers; null while there is no shared context
  static void* workspace_;       ///< device memory, `workspaceSize` bytes
  static bool initialized_;      ///< whether there is a shared context

 protected:
  std::size_t workspaceSize;  ///< bytes
};

/// Owns one layer, or is empty. A copy takes the layer over and leaves its source empty, so that
/// each layer is deleted once.
class FACEZOO_EXPORT Layer {
 public:
  Layer() = default;  ///< empty
  /// @{
  /// Takes over the other's layer, and deletes the one that it held itself.
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
  /// Takes ownership of a layer; the holder must be empty.
  Layer& operator=(LayerBase* p) {
    layer = p;
    return *this;
  }
  virtual ~Layer() { delete layer; }

  /// The result of the layer that it holds; the input itself if it is empty.
  virtual Tensor operator()(const Tensor& in) { return layer ? layer->operator()(in) : in; }

 private:
  mutable LayerBase* layer = nullptr;
};
