/// @file
/// What files are given where weights are expected, and what helps then.
#pragma once

#include <string>

namespace facezoo {

class WeightDocument;

bool isSafetensors(const std::string& path);

/// Passes what may be a weight file, and what cannot be read, of which the reader has more to say.
/// @param network whose weights they are to be
/// @throws Failure that says what the file is, if that is something else, and what helps
void expectWeightFile(const std::string& path, const std::string& network = "NET");

/// The same of a safetensors file.
void expectSafetensors(const std::string& path);

/// What to say behind the faults of a document that holds arrays as bytes, not as text; empty for
/// any other.
std::string adviceOnPacking(const WeightDocument& document);

}  // namespace facezoo
