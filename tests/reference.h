/// @file
/// The formulas of the layers as plain loops in double precision, which share no code with the
/// library.
#pragma once

#include "support.h"

#include <array>
#include <map>

namespace facezoo::test {

/// Values in the order of tensors: element (n, c, y, x) is at ((n·C + c)·H + y)·W + x.
struct Image4 {
  int n, c, h, w;
  std::vector<double> v;

  std::size_t index(int in, int ic, int iy, int ix) const {
    return ((static_cast<std::size_t>(in) * c + ic) * h + iy) * w + ix;
  }
  double at(int in, int ic, int iy, int ix) const { return v[index(in, ic, iy, ix)]; }
};
Image4 zeros(int n, int c, int h, int w);
Image4 seededImage(int n, int c, int h, int w, unsigned seed, double low = -1, double high = 1);
/// A tensor from the pool with these values.
Tensor upload(const Image4& x);
/// One image of n·h·w·c values becomes (n, c·h·w, 1, 1).
Image4 flat(const Image4& x);

/// @param bytes N, H, W, C, as in input tensors
/// @param mean empty, one value per channel, or one per byte of an image, in their order
Image4 convertInput(const Image4& bytes, const std::vector<float>& mean);
/// @param bias one value per output, or empty
Image4 convolution(const Image4& x, const std::vector<float>& filter,
                   const std::vector<float>& bias, int kernel, int stride, int pad);
/// The scale of a convolution's rounding errors: for each result, the root of the sum of its
/// squared terms. Partial sums of random terms of either sign grow like it, and with them their
/// roundings.
Image4 convolutionScale(Image4 x, std::vector<float> filter, std::vector<float> bias, int kernel,
                        int stride, int pad);
Image4 lrn(const Image4& x, int size, double alpha, double beta, double k);
Image4 relu(Image4 x);
Image4 softmax(const Image4& x);
enum class Pool { max, average };
/// Positions beyond the padded input do not exist: they count neither as values nor in the divisor.
Image4 pool(const Image4& x, Pool kind, int window, int stride, int pad);
Image4 concat(const std::vector<Image4>& parts);
/// @param parameters gamma, beta, mean and variance of each channel
Image4 batchNormalization(const Image4& x, const std::array<std::vector<float>, 4>& parameters,
                          double epsilon);
/// The larger of each value in the first half of the channels and its partner in the second: a NaN
/// in the first wins, a NaN in the second loses.
Image4 sliceMax(const Image4& x);

/// Computes chains of layers with random weights, which are made when a layer first asks for them.
/// Their scale follows that of the layer's input, so that the results depend on every layer and
/// every branch, however deep it is.
struct Chain {
  struct Weights : std::map<std::string, std::vector<float>> {
    unsigned seed = 0;  ///< other values for another seed
  };
  Weights weights;
  std::map<std::string, Image4> kept;  ///< by name, the results of the steps "set", "join", "norm"

  /// @param steps "layer:NAME sizes", separated by ';'; reference.cpp has the list of layers
  Image4 run(const std::string& steps, Image4 x);
};

/// A bound for the sum of `count` rounding errors of either sign and of `more` of the same sign,
/// relative to the scale. The first add up like a random walk, in which the factor 4 leaves room
/// for the few in a thousand that stray furthest.
double roundings(double count, double more = 4);
/// The largest absolute value of x in all places: the scale for results of many layers.
Image4 largest(Image4 x);
/// Expects the shape, and every value within `relative` times the same place's value in `scale`.
void expectClose(const Tensor& got, const Image4& expected, const Image4& scale, double relative);
void expectClose(const std::vector<float>& got, const Image4& expected, const Image4& scale,
                 double relative);
void expectEqual(const Tensor& got, const Image4& expected);

}  // namespace facezoo::test
