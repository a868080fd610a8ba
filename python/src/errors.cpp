#include "errors.h"

#include "check.h"
#include "client/devices.h"
#include "facezoo/errors.h"
#include "module.h"

#include <nanobind/stl/string.h>
#include <msgpack.hpp>

#include <array>
#include <new>

namespace nb = nanobind;
using namespace facezoo;

namespace {

using Kind = PackageError::Kind;

/// The classes, by `Kind`. They live as long as the process.
std::array<PyObject*, 4> classes;

/// @param bases the package's own class first
void bindError(nb::module_& module, Kind kind, const char* name, const nb::tuple& bases,
               const char* doc) {
  nb::dict members;
  members["status"] = nb::none();
  classes[kind] = PyErr_NewExceptionWithDoc(
      (nb::cast<std::string>(module.attr("__name__")) + "." + name).c_str(), doc, bases.ptr(),
      members.ptr());
  if (classes[kind] == nullptr) throw nb::python_error();
  module.attr(name) = nb::handle(classes[kind]);
}

Kind kindOf(cudaError_t status) {
  return status == cudaErrorMemoryAllocation ? Kind::memory : Kind::device;
}

/// Sets the exception in Python. The text may hold the bytes of a file's name.
void raise(Kind kind, const std::string& text, std::optional<int> status) {
  const auto decoded = nb::steal(
      PyUnicode_DecodeFSDefaultAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
  if (!decoded) return;  // with an exception of its own
  const nb::object error = nb::handle(classes[kind])(decoded);
  if (status) error.attr("status") = *status;
  PyErr_SetObject(classes[kind], error.ptr());
}

void translate(const std::exception_ptr& thrown, void*) {
  try {
    std::rethrow_exception(thrown);
  } catch (const PackageError& error) {
    raise(error.kind(), error.what(), error.status());
  } catch (const DeviceFailure& failure) {
    raise(kindOf(failure.status()), failure.what(), failure.status());
  } catch (const Failure& failure) {  // what else the client does is about files of weights
    raise(Kind::weight, failure.what(), {});
  }
}

}  // namespace

void throwPackageError(const std::string& line) {
  const std::string text = line.empty() ? describeException() : line;
  try {
    throw;
  } catch (NetworkError status) {
    throw PackageError(Kind::weight, text, status);
  } catch (const msgpack::v1::unpack_error&) {
    throw PackageError(Kind::weight, text);
  } catch (TensorError status) {
    throw PackageError(Kind::memory, text, status);
  } catch (GPUError status) {
    throw PackageError(Kind::device, text, status);
  } catch (cudaError status) {
    throw PackageError(kindOf(status), text, status);
  } catch (cudnnStatus_t status) {
    throw PackageError(status == CUDNN_STATUS_ALLOC_FAILED ? Kind::memory : Kind::device, text,
                       status);
  } catch (cublasStatus_t status) {
    throw PackageError(status == CUBLAS_STATUS_ALLOC_FAILED ? Kind::memory : Kind::device, text,
                       status);
  } catch (const std::bad_alloc&) {
    throw PackageError(Kind::memory, text);
  } catch (...) {
    throw PackageError(Kind::general, text);
  }
}

void bindErrors(nb::module_& module) {
  bindError(module, Kind::general, "Error", nb::make_tuple(nb::handle(PyExc_Exception)),
            R"(The library failed, or cannot be used any more.

The text is the library's line, or a sentence that says what was expected and what was found.
``status`` is the number of the CUDA, cuDNN, cuBLAS or library status behind it, or None.)");
  const nb::handle error = classes[Kind::general];
  bindError(module, Kind::device, "DeviceError", nb::make_tuple(error),
            "A call to the device failed, or there is no usable device.");
  bindError(module, Kind::weight, "WeightError",
            nb::make_tuple(error, nb::handle(PyExc_ValueError)),
            "A file of weights is missing, broken, or does not fit the network.");
  bindError(module, Kind::memory, "OutOfMemoryError",
            nb::make_tuple(error, nb::handle(PyExc_MemoryError)),
            "There is too little memory, on the device or on the host.");
  nb::register_exception_translator(translate);
}
