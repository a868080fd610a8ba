#include "client/devices.h"
#include "client/loading.h"
#include "client/networks.h"
#include "library.h"
#include "module.h"
#include "network_list.h"

#include <nanobind/ndarray.h>
#include <nanobind/stl/string.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

namespace nb = nanobind;
using namespace facezoo;

namespace {

using Images = nb::ndarray<nb::ro>;
using Floats = nb::ndarray<float, nb::c_contig>;

std::string textOf(nb::handle value) { return nb::str(value).c_str(); }

std::string quote(nb::handle value) { return nb::repr(value).c_str(); }

/// A file's name as the system has it. @throws TypeError, ValueError
std::string toPath(nb::handle value) {
  PyObject* bytes = nullptr;
  if (PyUnicode_FSConverter(value.ptr(), &bytes) == 0) {
    nb::python_error error;
    if (error.matches(PyExc_TypeError))
      throw nb::type_error(
          ("weights: expected a str, bytes or os.PathLike, found " + quote(value)).c_str());
    if (error.matches(PyExc_ValueError))
      throw nb::value_error(
          ("weights: expected a name that a file can have, found " + quote(value)).c_str());
    throw error;
  }
  const auto owned = nb::steal<nb::bytes>(bytes);
  return {owned.c_str(), owned.size()};
}

int toMaxBatch(nb::handle value, const NetworkTable& network) {
  const auto number = nb::steal(PyNumber_Index(value.ptr()));
  if (!number) {
    PyErr_Clear();
    throw nb::type_error(("max_batch: expected a whole number, found " + quote(value)).c_str());
  }
  const int most = largestBatch(network);
  long long batch = 0;
  if (!nb::try_cast(number, batch) || batch < 1 || batch > most) {
    throw nb::value_error(("max_batch: " + std::string(network.name) + " takes 1 to " +
                           std::to_string(most) + ", found " + quote(value))
                              .c_str());
  }
  return static_cast<int>(batch);
}

std::string toPrefix(nb::handle value) {
  if (!nb::isinstance<nb::str>(value))
    throw nb::type_error(("prefix: expected a str, found " + quote(value)).c_str());
  Py_ssize_t size = 0;
  const char* const text = PyUnicode_AsUTF8AndSize(value.ptr(), &size);
  if (text == nullptr) throw nb::python_error();
  return {text, static_cast<std::size_t>(size)};
}

enum class Memory { host, device };

Memory toMemory(nb::handle value) {
  if (nb::isinstance<nb::str>(value)) {
    const auto name = nb::cast<std::string>(value);
    if (name == "host") return Memory::host;
    if (name == "device" && FACEZOO_SIMULATED == 0) return Memory::device;
  }
  throw nb::value_error(("out: expected 'host'" +
                         std::string(FACEZOO_SIMULATED ? " in a build for CPUs" : " or 'device'") +
                         ", found " + quote(value))
                            .c_str());
}

std::string describeExpected(const NetworkTable& network) {
  return "images: expected uint8 of shape (n, " + std::to_string(network.height) + ", " +
         std::to_string(network.width) + ", " + std::to_string(network.channels) + ") in C order, ";
}

/// As far as it says of itself what it holds.
std::string describeFound(nb::handle images) {
  if (!nb::hasattr(images, "dtype") || !nb::hasattr(images, "shape"))
    return "found " + textOf(images.type().attr("__name__"));
  return "found " + textOf(images.attr("dtype")) + " of shape " +
         textOf(nb::tuple(images.attr("shape")));
}

/// Whether the bytes follow each other in the order of the indices, the last of which is fastest.
bool isContiguous(const Images& images) {
  int64_t expected = 1;
  for (std::size_t i = images.ndim(); i-- > 0;) {
    if (images.shape(i) != 1 && images.stride(i) != expected) return false;
    expected *= static_cast<int64_t>(images.shape(i));
  }
  return true;
}

Images toImages(const nb::object& value, const NetworkTable& network) {
  Images images;
  nb::object array = value;
  if (!nb::try_cast(array, images) && nb::hasattr(value, "__array_interface__")) {
    array = nb::module_::import_("numpy").attr("asarray")(value);
    nb::try_cast(array, images);
  }
  if (!images.is_valid()) {
    throw nb::value_error((describeExpected(network) + describeFound(array)).c_str());
  }
  if (images.dtype() != nb::dtype<unsigned char>() || images.ndim() != 4 ||
      int(images.shape(1)) != network.height || int(images.shape(2)) != network.width ||
      int(images.shape(3)) != network.channels) {
    // A buffer says it by a view only.
    if (!nb::hasattr(array, "dtype")) {
      const nb::object view = nb::steal(PyMemoryView_FromObject(array.ptr()));
      if (!view) throw nb::python_error();
      array = nb::module_::import_("numpy").attr("asarray")(view);
    }
    throw nb::value_error((describeExpected(network) + describeFound(array)).c_str());
  }
  if (images.size() > 0 && !isContiguous(images)) {
    nb::list strides;
    for (std::size_t i = 0; i < images.ndim(); ++i) strides.append(images.stride(i));
    throw nb::value_error((describeExpected(network) + "found strides " +
                           textOf(nb::tuple(strides)) + "; numpy.ascontiguousarray makes a copy")
                              .c_str());
  }
  return images;
}

bool isOnDevice(const Images& images) {
  return images.device_type() == nb::device::cuda::value ||
         images.device_type() == nb::device::cuda_managed::value;
}

nb::object emptyArray(const nb::tuple& shape) {
  // Kept for good: there is no safe time to release it at the end of the interpreter.
  static const nb::handle empty = nb::object(nb::module_::import_("numpy").attr("empty")).release();
  return empty(shape, nb::str("float32"));
}

/// An array in device memory, which any package that knows DLPack can take.
nb::object deviceArray(std::unique_ptr<DeviceBuffer> memory, std::size_t rows, std::size_t columns,
                       int device) {
  void* const data = memory->data();
  const nb::capsule owner(memory.release(), [](void* owned) noexcept {
    if (!isForked()) delete static_cast<DeviceBuffer*>(owned);
  });
  return nb::cast(nb::ndarray<nb::array_api, float, nb::device::cuda>(
      data, {rows, columns}, owner, {}, nb::dtype<float>(), nb::device::cuda::value, device));
}

/// A network with what its calls need on the device.
class Model {
 public:
  Model(const KnownNetwork& known, nb::handle weights, nb::handle maxBatch, nb::handle prefix)
      : table_(*known.table), path_(toPath(weights)), maxBatch_(toMaxBatch(maxBatch, table_)) {
    const std::string names = toPrefix(prefix);
    loaded_ = inLibrary([&](std::string& line) {
      const CurrentDevice device;
      return std::make_unique<Loaded>(makeCheckedNetwork(known, path_, maxBatch_, names, &line),
                                      table_, maxBatch_);
    });
  }
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;
  ~Model() {
    try {
      close();
    } catch (...) {  // nobody hears that the release failed
      static_cast<void>(loaded_.release());
    }
  }

  const NetworkTable& table() const { return table_; }
  int maxBatch() const { return maxBatch_; }
  bool isClosed() const { return isClosed_; }

  void close() {
    if (isClosed_) return;
    isClosed_ = true;
    if (isForked()) {
      static_cast<void>(loaded_.release());  // it is the parent's
    } else {
      inLibrary([&](const std::string&) {
        const CurrentDevice device;
        loaded_.reset();
      });
    }
  }

  nb::object call(const nb::object& images, nb::handle norm, nb::handle out) {
    if (!PyBool_Check(norm.ptr()))
      throw nb::type_error(("norm: expected True or False, found " + quote(norm)).c_str());
    const bool asksNorm = norm.is(Py_True);
    if (asksNorm && !table_.hasNorm)
      throw nb::value_error((std::string("norm: ") + table_.name + " has no norms").c_str());
    const Memory memory = toMemory(out);
    const Images batch = toImages(images, table_);
    const std::size_t count = batch.shape(0), width = table_.outputCount();

    nb::object values, norms;
    Pass pass = {static_cast<const unsigned char*>(batch.data()), isOnDevice(batch), int(count)};
    std::unique_ptr<DeviceBuffer> onDevice;
    if (memory == Memory::host) {
      values = emptyArray(nb::make_tuple(count, width));
      pass.values = nb::cast<Floats>(values).data();
    }
    if (asksNorm) {
      norms = emptyArray(nb::make_tuple(count));
      pass.norms = nb::cast<Floats>(norms).data();
    }
    int device = 0;
    inLibrary([&](const std::string&) {
      if (!loaded_)
        throw PackageError(PackageError::general, table_.name + std::string(" is closed"));
      const CurrentDevice current;
      device = current.index();
      if (pass.imagesOnDevice && batch.device_id() != device) {
        throw std::invalid_argument("images: expected on device " + std::to_string(device) +
                                    ", found on device " + std::to_string(batch.device_id()));
      }
      if (memory == Memory::device) {
        onDevice = std::make_unique<DeviceBuffer>(count * width * sizeof(float));
        pass.values = static_cast<float*>(onDevice->data());
        pass.valuesOnDevice = true;
      }
      run(pass);
    });
    if (memory == Memory::device) values = deviceArray(std::move(onDevice), count, width, device);
    return asksNorm ? nb::object(nb::make_tuple(values, norms)) : values;
  }

  std::string describe() const {
    const auto path = nb::steal(PyUnicode_DecodeFSDefault(path_.c_str()));
    return std::string("<facezoo.") + table_.name + " of " + quote(path) + ", max_batch " +
           std::to_string(maxBatch_) + (isClosed_ ? ", closed>" : ">");
  }

 private:
  struct Loaded {
    Loaded(std::unique_ptr<Network> made, const NetworkTable& table, int maxBatch)
        : network(std::move(made)),
          images(std::size_t(maxBatch) * table.channels * table.width * table.height),
          values(std::size_t(maxBatch) * table.outputCount() * sizeof(float)) {}
    std::unique_ptr<Network> network;
    DeviceBuffer images, values;
  };

  /// Where the images and results of a call are.
  struct Pass {
    const unsigned char* images;
    bool imagesOnDevice;
    int count;
    float* values = nullptr;
    bool valuesOnDevice = false;
    float* norms = nullptr;
  };

  void run(const Pass& pass) {
    const std::size_t imageBytes = std::size_t(table_.channels) * table_.width * table_.height;
    const std::size_t width = table_.outputCount();
    const bool writesDevice = table_.memory == Results::onDevice;
    std::vector<float> onHost;
    if (pass.valuesOnDevice && !writesDevice) onHost.resize(maxBatch_ * width);
    for (int first = 0; first < pass.count; first += maxBatch_) {
      const int count = std::min(maxBatch_, pass.count - first);
      const void* images = pass.images + first * imageBytes;
      if (!pass.imagesOnDevice) {
        checkCall(
            cudaMemcpy(loaded_->images.data(), images, count * imageBytes, cudaMemcpyHostToDevice),
            "copy of images to the device");
        images = loaded_->images.data();
      }
      float* const values = pass.values + first * width;
      float* written = values;
      if (writesDevice != pass.valuesOnDevice)
        written = writesDevice ? static_cast<float*>(loaded_->values.data()) : onHost.data();
      loaded_->network->Forward(const_cast<void*>(images), count, written,
                                pass.norms == nullptr ? nullptr : pass.norms + first);
      if (written != values) {
        checkCall(cudaMemcpy(values, written, count * width * sizeof(float),
                             writesDevice ? cudaMemcpyDeviceToHost : cudaMemcpyHostToDevice),
                  "copy of results");
      }
    }
    if (pass.valuesOnDevice) waitForDevice(loaded_->values.data());
  }

  const NetworkTable& table_;
  const std::string path_;
  const int maxBatch_;
  std::unique_ptr<Loaded> loaded_;  ///< guarded by the library's lock
  bool isClosed_ = false;           ///< guarded by Python's
};

nb::dict outputsOf(const NetworkTable& network) {
  nb::dict outputs;
  int first = 0;
  for (const OutputGroup& group : network.outputs) {
    outputs[group.name] = nb::slice(nb::int_(first), nb::int_(first + group.count), nb::none());
    first += group.count;
  }
  return outputs;
}

/// The class in Python of one network.
template <class Net>
struct ModelOf : Model {
  using Model::Model;
};

template <class Entry>
int bindNetwork(nb::module_& module, Entry) {
  using Class = ModelOf<typename Entry::Class>;
  const NetworkTable& table = Entry::table;
  std::string groups;
  for (const OutputGroup& group : table.outputs)
    groups += std::string(groups.empty() ? "" : ", ") + group.name + " (" +
              std::to_string(group.count) + ")";
  const std::string doc = std::string(table.name) + ": uint8 images of shape (n, " +
                          std::to_string(table.height) + ", " + std::to_string(table.width) + ", " +
                          std::to_string(table.channels) + ") to float32 results of shape (n, " +
                          std::to_string(table.outputCount()) + "): " + groups + "." +
                          (table.hasNorm ? " It has norms." : " It has no norms.");
  nb::class_<Class, Model>(module, table.name, doc.c_str())
      .def(
          "__init__",
          [](Class* self, const nb::object& weights, const nb::object& maxBatch,
             const nb::object& prefix) {
            new (self) Class(findNetwork(Entry::table.name), weights, maxBatch, prefix);
          },
          nb::arg("weights").none(), nb::arg("max_batch").none() = 8, nb::arg("prefix").none() = "",
          nb::sig("def __init__(self, weights: str | bytes | os.PathLike, max_batch: int = 8, "
                  "prefix: str = '') -> None"),
          R"(Loads the network.

Args:
    weights: The path of a file of weights.
    max_batch: The most images that are computed at once, from 1. The device memory of the network
        grows with it.
    prefix: The text in front of every weight's name in the file.

Raises:
    WeightError: The file cannot be read or does not fit the network; the text names the weights.
    OutOfMemoryError: There is too little memory for the weights or for ``max_batch``.
    DeviceError: There is no usable device, or it failed.
    ValueError, TypeError: ``max_batch`` or ``prefix`` is none.
)");
  return 0;
}

}  // namespace

void bindNetworks(nb::module_& module) {
  nb::class_<Model>(module, "Network", R"(What the eight networks have in common.

Any thread may call any network; the calls take turns, and leave the interpreter to other threads.
A network is a context manager, which closes it at the end.
)")
      .def("__call__", &Model::call, nb::arg("images").none(), nb::arg("norm").none() = false,
           nb::arg("out").none() = "host",
           nb::sig("def __call__(self, images: typing.Any, norm: bool = False, "
                   "out: typing.Literal['host', 'device'] = 'host') -> typing.Any"),
           R"(Runs the network.

Args:
    images: uint8 of shape (n, height, width, channels) in C order: a NumPy array, or anything that
        has DLPack, the buffer protocol or ``__array_interface__``. In a build for GPUs it may be in
        the device's memory. More than ``max_batch`` images are computed in parts.
    norm: Whether to compute the norms, too, of a network that has them.
    out: The memory of the results: "host", or in a build for GPUs "device", which gives an array
        for ``from_dlpack`` of any package.

Returns:
    float32 of shape (n, d), whose columns ``outputs`` names; d is 512 of a network with 512
    features. With ``norm``, a pair of them and the L2 norms, float32 of shape (n,), which are
    always a NumPy array. What the norms are norms of is in docs/networks.md.

Raises:
    ValueError: ``images`` has another type, shape or order, the network has no norms, or there is
        no such memory.
    TypeError: ``norm`` is no bool.
    DeviceError, OutOfMemoryError: The device failed. The network stays usable.
    Error: The network is closed, or the process was forked after the first use.
)")
      .def("close", &Model::close, "Gives the memory of the network back at once.")
      .def(
          "__enter__", [](nb::object self) { return self; },
          nb::sig("def __enter__(self) -> Network"))
      .def(
          "__exit__", [](Model& self, const nb::args&) { self.close(); },
          nb::sig("def __exit__(self, *args: object) -> None"))
      .def("__repr__", &Model::describe)
      .def("__reduce__",
           [](const Model&) {
             throw nb::type_error(
                 "a network cannot be pickled or copied; load its file in each process");
           })
      .def_prop_ro("closed", &Model::isClosed, "Whether the network was closed.")
      .def_prop_ro(
          "name", [](const Model& m) { return m.table().name; }, "The network's name.")
      .def_prop_ro(
          "channels", [](const Model& m) { return m.table().channels; },
          "Bytes per pixel of an image.")
      .def_prop_ro(
          "width", [](const Model& m) { return m.table().width; }, "Pixels of an image's row.")
      .def_prop_ro(
          "height", [](const Model& m) { return m.table().height; }, "Rows of an image.")
      .def_prop_ro(
          "output_dim", [](const Model& m) { return m.table().outputDim; },
          "Results per image; of a network that ends in a projection, the values before it.")
      .def_prop_ro("max_batch", &Model::maxBatch, "The most images that are computed at once.")
      .def_prop_ro(
          "outputs", [](const Model& m) { return outputsOf(m.table()); },
          nb::sig("def outputs(self) -> dict[str, slice]"), "The columns of the results, by name.");
  Networks::map([&](auto entry) { return bindNetwork(module, entry); });
}
