#include "client/info.h"

#include "library.h"
#include "module.h"

namespace nb = nanobind;
using namespace facezoo;

namespace {

nb::object toPython(const nlohmann::ordered_json& value) {
  if (value.is_object()) {
    nb::dict members;
    for (const auto& [name, member] : value.items()) members[name.c_str()] = toPython(member);
    return members;
  }
  if (value.is_array()) {
    nb::list elements;
    for (const auto& element : value) elements.append(toPython(element));
    return elements;
  }
  if (value.is_number()) return nb::int_(value.get<long long>());
  return nb::steal(PyUnicode_DecodeFSDefault(value.get<std::string>().c_str()));
}

nb::object info() {
  return toPython(inLibrary([](const std::string&) { return collectInformation(); }));
}

}  // namespace

void bindInfo(nb::module_& module) {
  module.def("info", &info, R"(What the library was built for and what it finds on this machine.

Returns:
    The dictionary that ``facezoo info --format json`` prints: the version ("facezoo") and the
    ``platform``; the ``libraries``, ``devices`` and ``networks``; and the variables of the
    ``environment`` that are set and have an effect. Without a usable device, each device's
    ``verdict`` says what it lacks.

Raises:
    DeviceError: The versions of the CUDA libraries cannot be read.
)",
             nb::sig("def info() -> dict[str, typing.Any]"));
}
