#include "client/file_kind.h"
#include "client/files.h"
#include "client/networks.h"
#include "client/synthesis.h"
#include "client/weight_document.h"
#include "client/weight_exchange.h"
#include "client/weight_names.h"
#include "errors.h"
#include "module.h"

#include <nanobind/ndarray.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>
#include <nanobind/stl/vector.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace nb = nanobind;
using namespace facezoo;

namespace {

/// A name in a file, or of one, or a text with such names: any bytes. In Python those that are not
/// UTF-8 are surrogates, as in Python's own names of files.
struct Text {
  std::string bytes;
};

}  // namespace

template <>
struct nanobind::detail::type_caster<Text> {
  NB_TYPE_CASTER(Text, const_name("str"))

  bool from_python(handle source, std::uint8_t, cleanup_list*) noexcept {
    const object encoded =
        steal(PyUnicode_AsEncodedString(source.ptr(), "utf-8", "surrogateescape"));
    char* bytes = nullptr;
    Py_ssize_t size = 0;
    if (!encoded.is_valid() || PyBytes_AsStringAndSize(encoded.ptr(), &bytes, &size) != 0) {
      PyErr_Clear();
      return false;
    }
    value.bytes.assign(bytes, size);
    return true;
  }
  static handle from_cpp(const Text& name, rv_policy, cleanup_list*) noexcept {
    return PyUnicode_DecodeUTF8(name.bytes.data(), static_cast<Py_ssize_t>(name.bytes.size()),
                                "surrogateescape");
  }
};

namespace {

std::vector<Text> textsOf(const std::vector<std::string>& strings) {
  std::vector<Text> texts;
  texts.reserve(strings.size());
  for (const std::string& bytes : strings) texts.push_back({bytes});
  return texts;
}

/// The bytes of an array's floats: nothing need be aligned to four bytes.
using Bytes = nb::ndarray<const std::uint8_t, nb::ndim<1>, nb::c_contig, nb::device::cpu>;
using ReturnedBytes = nb::ndarray<nb::numpy, const std::uint8_t, nb::ndim<1>>;

using Shape = std::vector<std::size_t>;
/// Text, type (F32, or one that is not of floats), shape, and the bytes of an F32.
using GivenTensor = std::tuple<Text, std::string, Shape, std::optional<Bytes>>;
using ReturnedTensor = std::tuple<Text, std::string, Shape, std::optional<ReturnedBytes>>;

std::vector<StoredTensor> storedTensors(const std::vector<GivenTensor>& given) {
  std::vector<StoredTensor> tensors;
  tensors.reserve(given.size());
  for (const auto& [name, type, shape, bytes] : given) {
    std::string_view data;
    if (bytes) data = {reinterpret_cast<const char*>(bytes->data()), bytes->size()};
    tensors.push_back({name.bytes, type, shape, data});
  }
  return tensors;
}

/// @param owner keeps the tensors' bytes
std::vector<ReturnedTensor> returnedTensors(const std::vector<StoredTensor>& tensors,
                                            nb::handle owner) {
  std::vector<ReturnedTensor> returned;
  for (const StoredTensor& tensor : tensors) {
    std::optional<ReturnedBytes> bytes;
    if (tensor.type == "F32")
      bytes.emplace(tensor.data.data(), std::initializer_list<std::size_t>{tensor.data.size()},
                    owner);
    returned.emplace_back(Text{tensor.name}, tensor.type, tensor.shape, bytes);
  }
  return returned;
}

template <class T>
nb::capsule ownerOf(std::unique_ptr<T> object) {
  return nb::capsule(object.release(), [](void* owned) noexcept { delete static_cast<T*>(owned); });
}

/// Returns what `use`, which reads or judges weights, does without the interpreter's lock.
template <class Use>
auto unlocked(const Use& use) {
  const nb::gil_scoped_release others;
  return use();
}

/// Calls `write` with the place of a file, which may replace another, without the interpreter's
/// lock. One thread writes at a time, as the list of incomplete files has no lock.
/// @throws PackageError
template <class Write>
void writeFile(const Text& path, const std::vector<std::string>& inputs, const Write& write) {
  static std::mutex writing;
  const nb::gil_scoped_release others;
  const std::lock_guard<std::mutex> alone(writing);
  try {
    write(Outputs(inputs).claim(path.bytes, true));
  } catch (const Failure& failure) {  // of the file, not of what is in it
    throw PackageError(PackageError::general, failure.what());
  }
}

const NetworkTable& tableOf(const std::string& network) { return *findNetwork(network).table; }

std::unique_ptr<WeightDocument> readDocument(const std::string& path, const char* network) {
  expectWeightFile(path, network);
  return std::make_unique<WeightDocument>(path);
}

auto check(const Text& path, const std::string& network, const Text& prefix) {
  const NetworkTable& table = tableOf(network);
  const auto [findings, text] = unlocked([&] {
    const auto document = readDocument(path.bytes, table.name);
    WeightFindings found = checkWeights(*document, table, prefix.bytes);
    std::string lines;
    for (const std::string& line : found.lines()) lines += line + '\n';
    lines += found.verdict(table);
    if (!found.faults.empty()) lines += adviceOnPacking(*document);
    return std::pair(std::move(found), lines);
  });
  return std::tuple(findings.expected, textsOf(findings.faults), textsOf(findings.unused),
                    findings.unusedCount, Text{text});
}

void synthesize(const Text& path, const std::string& network, std::uint64_t seed,
                const Text& prefix) {
  const NetworkTable& table = tableOf(network);
  writeFile(path, {}, [&](OutputPlace place) {
    NewFile file(std::move(place));
    writeRandomWeights(table, prefix.bytes, seed, file.stream());
    file.keep();
  });
}

/// The arrays of a weight file: those of a network, without the prefix, or all.
std::vector<ReturnedTensor> load(const Text& path, const std::optional<std::string>& network,
                                 const Text& prefix) {
  const NetworkTable* const table = network ? &tableOf(*network) : nullptr;
  std::unique_ptr<WeightDocument> document;
  const std::vector<StoredTensor> tensors = unlocked([&] {
    document = readDocument(path.bytes, table != nullptr ? table->name : "NET");
    if (table != nullptr) {
      requireWeights(*document, path.bytes, *table, prefix.bytes);
      auto arrays = tensorsOf(*document, *table, prefix.bytes);
      for (StoredTensor& array : arrays) array.name.erase(0, prefix.bytes.size());
      return arrays;
    }
    try {
      return tensorsOf(*document);
    } catch (const Failure& failure) {
      throw Failure(path.bytes + ": " + failure.what() + adviceOnPacking(*document));
    }
  });
  return returnedTensors(tensors, ownerOf(std::move(document)));
}

/// The tensors of a safetensors file, floats widened to 32 bits.
std::vector<ReturnedTensor> readSafetensors(const Text& path) {
  struct File {
    std::optional<TensorFile> file;
    std::vector<std::string> widened;
  };
  auto owned = std::make_unique<File>();
  const std::vector<StoredTensor> tensors = unlocked([&] {
    expectSafetensors(path.bytes);
    std::vector<StoredTensor> all = owned->file.emplace(path.bytes).tensors();
    owned->widened.reserve(all.size());
    for (StoredTensor& tensor : all) {
      if (!holdsFloats(tensor) || tensor.type == "F32") continue;
      std::string& floats = owned->widened.emplace_back();
      floats.reserve(tensor.elements() * sizeof(float));
      readFloats(tensor, [&](std::string_view part) { floats += part; });
      tensor.type = "F32";
      tensor.data = floats;
    }
    return all;
  });
  return returnedTensors(tensors, ownerOf(std::move(owned)));
}

/// The weights' proposed tensors, and how many are by name, by shape and by order.
auto propose(const std::string& network, const std::vector<GivenTensor>& tensors,
             const Text& prefix) {
  const ProposedNames proposed =
      proposeNames(storedTensors(tensors), tableOf(network), prefix.bytes);
  std::vector<std::pair<Text, std::optional<Text>>> names;
  for (const auto& [weight, tensor] : proposed.names) {
    names.emplace_back(Text{weight.substr(prefix.bytes.size())}, std::nullopt);
    if (tensor) names.back().second = Text{*tensor};
  }
  return std::tuple(names, proposed.byName, proposed.byShape, proposed.byOrder);
}

/// The network's arrays among tensors.
/// @param source what the tensors are of, for the text of a failure
std::vector<StoredTensor> requireTensors(const std::vector<StoredTensor>& tensors,
                                         const NetworkTable& network, const std::string& prefix,
                                         const TensorNames& names, const std::string& source) {
  TensorSelection selection = selectTensors(tensors, network, prefix, names);
  std::vector<std::string> faults = faultsOf(names, network, prefix);
  const std::vector<std::string>& others = selection.findings.faults;
  faults.insert(faults.end(), others.begin(), others.end());
  if (!faults.empty()) throw Failure(source + ": " + joinFaults(faults));
  return std::move(selection.arrays);
}

/// The arrays of a network, without the prefix, among `tensors`.
std::vector<ReturnedTensor> selectArrays(
    const std::string& network, const nb::object& tensors,
    const std::vector<std::pair<Text, std::optional<Text>>>& names, const Text& prefix,
    const Text& source) {
  const NetworkTable& table = tableOf(network);
  const auto given = nb::cast<std::vector<GivenTensor>>(tensors);
  TensorNames renamed;
  for (const auto& [weight, tensor] : names) {
    auto& other = renamed[prefix.bytes + weight.bytes];
    if (tensor) other = tensor->bytes;
  }
  const std::vector<StoredTensor> arrays = unlocked([&] {
    auto selected =
        requireTensors(storedTensors(given), table, prefix.bytes, renamed, source.bytes);
    for (StoredTensor& array : selected) array.name.erase(0, prefix.bytes.size());
    return selected;
  });
  return returnedTensors(arrays, tensors);
}

/// Tensors to be written: all that are given, or those of a network, which must be all of them. The
/// network's are in its order, and have its shapes and the prefix.
std::vector<StoredTensor> tensorsToWrite(const std::vector<GivenTensor>& given,
                                         const std::optional<std::string>& network,
                                         const Text& prefix) {
  const NetworkTable* const table = network ? &tableOf(*network) : nullptr;
  return unlocked([&] {
    std::vector<StoredTensor> tensors = storedTensors(given);
    if (table != nullptr) {
      TensorNames names;
      for (const StoredTensor& tensor : tensors) names[tensor.name] = tensor.name;
      tensors = requireTensors(tensors, *table, "", names, "arrays of " + *network);
    } else {
      for (const StoredTensor& tensor : tensors)
        if (!holdsFloats(tensor))
          throw Failure(tensor.name + ": expected floats, found " + tensor.type);
    }
    for (StoredTensor& tensor : tensors) tensor.name.insert(0, prefix.bytes);
    return tensors;
  });
}

void save(const Text& path, const std::vector<GivenTensor>& given,
          const std::optional<std::string>& network, const Text& prefix) {
  const std::vector<StoredTensor> tensors = tensorsToWrite(given, network, prefix);
  writeFile(path, {}, [&](OutputPlace place) { saveWeights(tensors, std::move(place)); });
}

/// @param inputs files that `path` must not replace
void saveAsSafetensors(const Text& path, const std::vector<GivenTensor>& given,
                       const std::string& network, const Text& prefix,
                       const std::vector<Text>& inputs) {
  const std::vector<StoredTensor> tensors = tensorsToWrite(given, network, prefix);
  std::vector<std::string> read;
  read.reserve(inputs.size());
  for (const Text& input : inputs) read.push_back(input.bytes);
  writeFile(path, read,
            [&](OutputPlace place) { saveSafetensors(tensors, network, std::move(place)); });
}

}  // namespace

void bindWeights(nb::module_& module) {
  module.def("check_weights", &check, nb::arg("path"), nb::arg("network"), nb::arg("prefix"));
  module.def("synthesize_weights", &synthesize, nb::arg("path"), nb::arg("network"),
             nb::arg("seed"), nb::arg("prefix"));
  module.def("load_weights", &load, nb::arg("path"), nb::arg("network").none(), nb::arg("prefix"));
  module.def("read_safetensors", &readSafetensors, nb::arg("path"));
  module.def("propose_names", &propose, nb::arg("network"), nb::arg("tensors"), nb::arg("prefix"));
  module.def("select_tensors", &selectArrays, nb::arg("network"), nb::arg("tensors"),
             nb::arg("names"), nb::arg("prefix"), nb::arg("source"));
  module.def("save_weights", &save, nb::arg("path"), nb::arg("tensors"), nb::arg("network").none(),
             nb::arg("prefix"));
  module.def("save_safetensors", &saveAsSafetensors, nb::arg("path"), nb::arg("tensors"),
             nb::arg("network"), nb::arg("prefix"), nb::arg("inputs"));
}
