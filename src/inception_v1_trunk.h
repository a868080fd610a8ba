/// @file
/// The Inception V1 trunk of four networks. It runs whole, or in two parts for the network that
/// branches off in between.
#pragma once

#include "facezoo/layer.h"
#include "layers/lrn.h"
#include "layers/pool.h"

#include <utility>

namespace facezoo {

/// Runs the layers of `inceptionV1Trunk`, which a network owns.
class InceptionV1Trunk {
 public:
  /// @param layers in the order of `inceptionV1Trunk`
  explicit InceptionV1Trunk(Layer (&layers)[13]) : layers_(layers) {}

  /// The whole trunk: `to4d`, then `from4e`.
  Tensor operator()(Tensor x) {
    x = to4d(std::move(x));
    return from4e(std::move(x));
  }

  /// @param x images (N, H, W, C)
  /// @return the result of "inception_4d/": 528 channels, a sixteenth of the edge
  /// @throws what the layers throw
  Tensor to4d(Tensor x) {
    auto& [inMean, conv1, conv2Reduce, conv2, inception3a, inception3b, inception4a, inception4b,
           inception4c, inception4d, inception4e, inception5a, inception5b] = layers_;
    x = inMean(x);
    x = conv1(x);
    x = maxPool_(x, 3, 2, 0);
    x = lrn_(x, 5, 0.0001F, 0.75F, 1.0F);
    x = conv2Reduce(x);
    x = conv2(x);
    x = lrn_(x, 5, 0.0001F, 0.75F, 1.0F);
    x = maxPool_(x, 3, 2, 0);
    x = inception3a(x);
    x = inception3b(x);
    x = maxPool_(x, 3, 2, 0);
    x = inception4a(x);
    x = inception4b(x);
    x = inception4c(x);
    x = inception4d(x);
    return x;
  }

  /// @param x the result of `to4d`
  /// @return the average of each of the 1024 channels of "inception_5b/"
  /// @throws what the layers throw
  Tensor from4e(Tensor x) {
    auto& [inMean, conv1, conv2Reduce, conv2, inception3a, inception3b, inception4a, inception4b,
           inception4c, inception4d, inception4e, inception5a, inception5b] = layers_;
    x = inception4e(x);
    x = maxPool_(x, 3, 2, 0);
    x = inception5a(x);
    x = inception5b(x);
    return averagePool_(x, x.base->shape.z, 1, 0);
  }

 private:
  Layer (&layers_)[13];
  MaxPooling maxPool_;
  LocalResponseNormalization lrn_;
  AveragePooling averagePool_;
};

}  // namespace facezoo
