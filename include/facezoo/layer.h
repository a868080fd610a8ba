/// @file
/// The base class of layers and networks, and the holder in which networks keep their layers.
#pragma once

#include "export.h"
#include "message_pack.h"
#include "tensor.h"

#include <cudnn.h>

#include <cstddef>
#include <string>

/// A layer computes one new tensor, in a block of the pool, from its input tensors. All layers
/// share one cuDNN handle and one workspace, which the first layer's constructor creates and the
/// last network's destructor releases. All work goes to the default stream.
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

  /// Releases the shared context; the next layer constructed creates it again. The destructor of
  /// the last network calls this and throws nothing. If a network's constructor fails so early that
  /// the network does not count yet, the context stays, for the host to release or the next network
  /// to use.
  /// @return 0; @throws cudaError if the workspace cannot be released, and stays
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
  /// Takes over the other's layer; deletes the one that it had.
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
