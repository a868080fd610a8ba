/// @file
/// The heads with which the classifying networks end.
#pragma once

#include "facezoo/layer.h"
#include "layers/concat.h"
#include "layers/softmax.h"

#include <initializer_list>

namespace facezoo {

/// Runs heads on the same features and joins their results.
class Heads {
 public:
  /// @return the probabilities of each classifier, then the value of each regressor, in the order
  ///         given. Takes three blocks of the pool beside the features.
  /// @throws what the layers throw
  Tensor operator()(const Tensor& features, std::initializer_list<Layer*> classifiers,
                    std::initializer_list<Layer*> regressors = {}) {
    Tensor all, result;
    const auto append = [&] { all = all.base ? concat_({all, result}) : result; };
    for (Layer* head : classifiers) {
      result = (*head)(features);
      result = softmax_(result);
      append();
    }
    for (Layer* head : regressors) {
      result = (*head)(features);
      append();
    }
    return all;
  }

 private:
  Softmax softmax_;
  Concat concat_;
};

}  // namespace facezoo
