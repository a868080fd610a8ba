/// @file
/// Recognises files of other formats where weights are expected, and says how to convert them.
#pragma once

#include <string>

namespace facezoo {

class WeightDocument;

bool isSafetensors(const std::string& path);

/// Refuses a file that is known to be of another kind. A file that cannot be read is left to its
/// reader, which says why.
/// @param network the network that the weights are for
/// @throws Failure that says what the file is and how to convert it
void expectWeightFile(const std::string& path, const std::string& network = "NET");

/// The same where a safetensors file is expected.
void expectSafetensors(const std::string& path);

/// A hint to append to the faults of a document that holds arrays as bytes instead of text; empty
/// for any other document.
std::string adviceOnPacking(const WeightDocument& document);

}  // namespace facezoo
