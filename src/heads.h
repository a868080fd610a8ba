/// @file
/// How the classifying networks end.
#pragma once

#include "layer.h"
#include "layers/concat.h"
#include "layers/softmax.h"

#include <initializer_list>

namespace facezoo {

/// The results of heads that all see the same features, joined in the order given: of each
/// classifier its probabilities, of each regressor its value. Takes three blocks of the pool beside
/// the features.
/// @throws what the layers throw
inline Tensor runHeads(const Tensor& features, std::initializer_list<Layer*> classifiers,
                       std::initializer_list<Layer*> regressors = {}) {
  Softmax softmax;
  Concat concat;
  Tensor all, result;
  const auto append = [&] { all = all.base ? concat({all, result}) : result; };
  for (Layer* head : classifiers) {
    result = (*head)(features);
    result = softmax(result);
    append();
  }
  for (Layer* head : regressors) {
    result = (*head)(features);
    append();
  }
  return all;
}

}  // namespace facezoo
