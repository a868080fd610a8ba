/// @file
/// What a build consists of and what it finds on this machine.
#pragma once

#include "network_table.h"

#include <nlohmann/json.hpp>

#include <string>

namespace facezoo {

/// The build, the libraries and devices found, the networks, and the variables that are set. Texts
/// that come from outside may not be UTF-8.
/// @param noDevice takes why the library could use no device, unless it is null
/// @throws Failure if the versions of the CUDA libraries cannot be read
nlohmann::ordered_json collectInformation(std::string* noDevice = nullptr);

/// A variable of the environment that changes what the library does.
struct Variable {
  const char *name, *effect;
};
View<Variable> environmentVariables();

}  // namespace facezoo
