/// @file
/// The Inception V1 trunk of four networks, in two parts: one of them branches in between.
#pragma once

#include "layer.h"
#include "layers/lrn.h"
#include "layers/pool.h"

#include <utility>

namespace facezoo {

/// @param trunk the layers of `inceptionV1Trunk`, in its order
/// @param x images (N, H, W, C)
/// @return the result of "inception_4d/": 528 channels, a sixteenth of the edge
/// @throws what the layers throw
inline Tensor inceptionV1To4d(Layer (&trunk)[13], Tensor x) {
  auto& [inMean, conv1, conv2Reduce, conv2, inception3a, inception3b, inception4a, inception4b,
         inception4c, inception4d, inception4e, inception5a, inception5b] = trunk;
  MaxPooling maxPool;
  LocalResponseNormalization lrn;

  x = inMean(x);
  x = conv1(x);
  x = maxPool(x, 3, 2, 0);
  x = lrn(x, 5, 0.0001F, 0.75F, 1.0F);
  x = conv2Reduce(x);
  x = conv2(x);
  x = lrn(x, 5, 0.0001F, 0.75F, 1.0F);
  x = maxPool(x, 3, 2, 0);
  x = inception3a(x);
  x = inception3b(x);
  x = maxPool(x, 3, 2, 0);
  x = inception4a(x);
  x = inception4b(x);
  x = inception4c(x);
  x = inception4d(x);
  return x;
}

/// @param x the result of `inceptionV1To4d`
/// @return the average of each of the 1024 channels of "inception_5b/"
/// @throws what the layers throw
inline Tensor inceptionV1From4e(Layer (&trunk)[13], Tensor x) {
  Layer *inception4e = trunk + 10, *inception5a = trunk + 11, *inception5b = trunk + 12;
  x = (*inception4e)(x);
  x = MaxPooling()(x, 3, 2, 0);
  x = (*inception5a)(x);
  x = (*inception5b)(x);
  return AveragePooling()(x, x.base->shape.z, 1, 0);
}

}  // namespace facezoo
