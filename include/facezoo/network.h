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

/// A trained network, which is constructed from a weight file and called with batches of 8-bit
/// images.
///
/// Each class `N` of the eight is constructed by `N(weightFile, maxBatch, prefix)`. `weightFile` is
/// the path of a MessagePack file of weights, `maxBatch` the largest batch that `Forward` will be
/// called with, and `prefix` the text in front of every weight's name. The constructor throws what
/// `Network`'s constructor throws, and
/// - NetworkError 1 if a weight is missing or mis-sized,
/// - TensorError 0 if no block of the pool can be large enough for `maxBatch`,
/// - cudaError, cudnnStatus_t or cublasStatus_t if a call to the GPU libraries fails.
///
/// The networks of a process share a pool of device memory, handles and a workspace, which live as
/// long as any network does. Calls on all networks must not overlap; see `GPU::getMutex`.
class FACEZOO_EXPORT Network : public LayerBase {
 public:
  /// Reads and parses the weight file, and keeps it for life.
  /// @param path of the file
  /// @param prefix not used here; the layers put it in front of their arrays' names
  /// @throws NetworkError 0 if the file cannot be read
  /// @throws msgpack::v1::insufficient_bytes if it ends inside the document
  /// @throws msgpack::v1::parse_error if it is not MessagePack or nests deeper than 32 levels
  /// @throws cudnnStatus_t, cudaError if the shared context cannot be created
  /// @throws std::bad_alloc if host memory runs out
  ///
  /// What `facezoo::Listener::onDocument` throws passes through.
  Network(const char* path, std::string prefix);

  /// Takes over everything that `other` has. `other` is left empty: its `Forward` throws
  /// NetworkError 1.
  Network(Network& other);
  Network& operator=(const Network&) = delete;

  /// Releases the network. The last one also releases the shared resources, each independently of
  /// the others. If one cannot be released, a line is printed, and the resource stays for the next
  /// network to use or release. Throws nothing.
  ~Network() override;

  /// Runs the network.
  ///
  /// @param images device memory: `batch` images of height × width × channels bytes, interleaved
  /// @param batch number of images, 1 up to the `maxBatch` given to the constructor
  /// @param out1 results in floats, image after image; host or device memory, as each network says
  /// @param out2 host memory for one float per image, or null; some networks do not use it
  /// @return 0
  /// @throws TensorError 0 if the batch is larger than the pool was sized for
  /// @throws NetworkError 1 if a copy has taken over the layers
  /// @throws cudaError, cudnnStatus_t, cublasStatus_t if a call to the GPU libraries fails. The
  ///         network stays usable
  virtual int Forward(void* images, int batch, float* out1, float* out2) = 0;

  int getChannels() { return channels; }  ///< bytes per pixel
  int getWidth() { return width; }        ///< pixels
  int getHeight() { return height; }      ///< pixels
  /// Floats per image in `out1`; of a network that ends in a projection, the number of values
  /// before the projection.
  int getOutputDim() { return outputDim; }

  /// Reads and parses the file `path` into `out`; throws what the constructor throws.
  void openMsgPack(const char* path, msgpack::v1::unpacked& out);

 protected:
  /// One holder, or an array of them.
  struct Holders {
    /// @{
    /// Implicit, so that a constructor can list its members.
    Holders(Layer& one) : first(&one), count(1) {}
    template <std::size_t N>
    Holders(Layer (&several)[N]) : first(several), count(N) {}
    /// @}
    Layer* first;       ///< a member of the network
    std::size_t count;  ///< holders from `first` on, at least 1
  };

  /// The last step of every network's constructor. Sets the geometry, creates a layer from each row
  /// of `table` in order, puts the layers into `holders`, of which there are as many, and sizes the
  /// pool for `maxBatch` images.
  /// @throws NetworkError 1; TensorError 0 if no block of the pool can be that large; cudaError,
  ///         cudnnStatus_t, cublasStatus_t
  FACEZOO_NO_EXPORT void build(const facezoo::NetworkTable& table, int maxBatch,
                               const std::string& prefix, std::initializer_list<Holders> holders);

  // The first step and the last steps of every network's `Forward`. The line that reports a failure
  // names the file and line of the caller.

  /// A tensor that holds `batch` images as bytes, of shape (N, H, W, C).
  /// @throws NetworkError 1 if a copy has taken over the layers; TensorError 0, cudaError
  FACEZOO_NO_EXPORT Tensor copyIn(const void* images, int batch,
                                  const char* file = __builtin_FILE(),
                                  int line = __builtin_LINE()) const;
  /// Copies all floats of `result` to `out`; `kind` says whether that is host or device memory.
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
