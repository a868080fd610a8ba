/// @file
/// What a build consists of and what it finds on this machine.
#pragma once

#include "client/devices.h"
#include "client/failure.h"
#include "network_table.h"

#include <nlohmann/json.hpp>

#include <optional>

namespace facezoo {

struct Information {
  /// The build, the libraries and devices found, the networks, and the variables that are set.
  /// Texts that come from outside may not be UTF-8.
  nlohmann::ordered_json document;
  std::optional<Failure> noDevice;  ///< why the library could use no device
};

/// @throws Failure if the versions of the CUDA libraries cannot be read
Information collectInformation();

/// A variable of the environment that changes what the library does.
struct Variable {
  const char *name, *effect;
};
View<Variable> environmentVariables();

}  // namespace facezoo
