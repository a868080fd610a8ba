/// @file
/// The package's exceptions.
#pragma once

#include "client/failure.h"

#include <optional>
#include <string>

/// One of the exceptions, in C++.
class PackageError : public facezoo::Failure {
 public:
  enum Kind { general, device, weight, memory };
  PackageError(Kind kind, const std::string& text, std::optional<int> status = {})
      : Failure(text), kind_(kind), status_(status) {}

  Kind kind() const { return kind_; }
  std::optional<int> status() const { return status_; }

 private:
  Kind kind_;
  std::optional<int> status_;
};

/// Throws what the exception in flight, which the library threw, is in Python.
/// @param line what the library said last; empty if it said nothing
[[noreturn]] void throwPackageError(const std::string& line);
