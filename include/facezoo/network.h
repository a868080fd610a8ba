/// @file
/// The base of the eight networks.
#pragma once

#include "layer.h"

#include <cstddef>
#include <initializer_list>
#include <string>

namespace facezoo {
struct NetworkTable;
}

/// A trained network: constructed from a weight file, called with batches of 8-bit images.
///
/// A class `N` of the eight is constructed by `N(weightFile, maxBatch, prefix)`: the path of a
/// MessagePack file of weights, the largest batch that `Forward` will be called with, and what to
/// put in front of every weight name. That throws what `Network`'s constructor throws, and
/// NetworkError 1 if a weight is missing or mis-sized, TensorError 0 if no pool block can be large
/// enough for `maxBatch`, cudaError, cudnnStatus_t or cublasStatus_t.
///
/// The shared device resources (pool, handles, workspace) live as long as any network does. Calls
/// on all networks of the process must not overlap; see `GPU::getMutex`.
class FACEZOO_EXPORT Network : public LayerBase {
 public:
  /// Opens and parses the weight file.
  /// @throws NetworkError 0 if the file cannot be read; msgpack::v1::insufficient_bytes if it ends
  ///         inside the document; msgpack::v1::parse_error if it is not MessagePack or nests deeper
  ///         than 32 levels; @throws cudnnStatus_t, cudaError
  Network(const char* path, std::string prefix);

  /// Transfers everything; `other` is left empty and its `Forward` throws NetworkError 1.
  Network(Network& other);
  Network& operator=(const Network&) = delete;

  /// The last network releases the shared resources, each whatever becomes of the others. For one
  /// that cannot be released a line is printed; it stays, for the next network to use or release.
  ~Network() override;

  /// Runs the network.
  ///
  /// @param images device memory: `batch` images of height × width × channels bytes, interleaved
  /// @param batch 1 up to the maximum batch given to the constructor
  /// @param out1 results, image after image; host or device memory, as each network says
  /// @param out2 host memory for one float per image, or null; not used by every network
  /// @return 0
  /// @throws TensorError 0 if the batch is larger than the pool was sized for; NetworkError 1 if
  ///         the layers have moved to a copy; cudaError, cudnnStatus_t, cublasStatus_t. The network
  ///         stays usable.
  virtual int Forward(void* images, int batch, float* out1, float* out2) = 0;

  int getChannels() { return channels; }  ///< bytes per pixel
  int getWidth() { return width; }        ///< pixels
  int getHeight() { return height; }      ///< pixels
  /// Floats per image in `out1`; of a network that ends in a projection, the length before it.
  int getOutputDim() { return outputDim; }

  /// Reads and parses `path` into `out`; see the constructor.
  void openMsgPack(const char* path, msgpack::v1::unpacked& out);

 protected:
  /// One holder, or an array of them.
  struct Holders {
    /// @{
    /// Implicit, so that a list of holders is written as a list of members.
    Holders(Layer& one) : first(&one), count(1) {}
    template <std::size_t N>
    Holders(Layer (&several)[N]) : first(several), count(N) {}
    /// @}
    Layer* first;       ///< a member of the network
    std::size_t count;  ///< holders from `first` on, at least 1
  };

  /// Ends every network's constructor: sets the geometry, creates a layer from each row of `table`
  /// in order, puts them into `holders`, which are as many, and sizes the pool for `maxBatch`
  /// images.
  /// @throws NetworkError 1, TensorError 0 if no pool block can be that large, and the statuses
  FACEZOO_NO_EXPORT void build(const facezoo::NetworkTable& table, int maxBatch,
                               const std::string& prefix, std::initializer_list<Holders> holders);

  // The first and last steps of every network's `Forward`. A failure is reported with the file and
  // line of the caller.

  /// A tensor that holds `batch` images, of shape (N, H, W, C).
  /// @throws NetworkError 1 if the layers have moved away; TensorError 0, cudaError
  FACEZOO_NO_EXPORT Tensor copyIn(const void* images, int batch,
                                  const char* file = __builtin_FILE(),
                                  int line = __builtin_LINE()) const;
  /// Copies all floats of `result` to `out`; `kind` says what memory that is.
  /// @throws cudaError
  FACEZOO_NO_EXPORT static void copyOut(const Tensor& result, float* out, cudaMemcpyKind kind,
                                        const char* file = __builtin_FILE(),
                                        int line = __builtin_LINE());
  /// Copies the L2 norm of each image's `features` to host memory, unless `out` is null.
  /// @throws TensorError 0, cudaError
  FACEZOO_NO_EXPORT static void copyNorms(const Tensor& features, float* out,
                                          const char* file = __builtin_FILE(),
                                          int line = __builtin_LINE());

  msgpack::v1::object weights;     ///< root of `unpacked`
  msgpack::v1::unpacked unpacked;  ///< the parsed file; empty once a copy has taken over
  int channels;                    ///< bytes per pixel
  int width;                       ///< pixels
  int height;                      ///< pixels
  int perImageBytes;               ///< of a pool block, for each image of a batch
  int bufferCount;                 ///< pool blocks that the network asks for
  int outputDim;                   ///< what `getOutputDim` returns
  static int network_count;        ///< live networks; a copy and its empty source count as one
};
