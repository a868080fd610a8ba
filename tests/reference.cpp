#include "reference.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace facezoo::test {
namespace {

/// An image of the given shape whose elements are value(n, c, y, x).
template <class Value>
Image4 generate(int n, int c, int h, int w, Value&& value) {
  Image4 result{n, c, h, w, {}};
  for (int in = 0; in < n; ++in)
    for (int ic = 0; ic < c; ++ic)
      for (int iy = 0; iy < h; ++iy)
        for (int ix = 0; ix < w; ++ix) result.v.push_back(value(in, ic, iy, ix));
  return result;
}

}  // namespace

Image4 zeros(int n, int c, int h, int w) {
  return {n, c, h, w, std::vector<double>(static_cast<std::size_t>(n) * c * h * w)};
}

Image4 seededImage(int n, int c, int h, int w, unsigned seed, double low, double high) {
  Image4 x = zeros(n, c, h, w);
  const std::vector<float> values = seededValues(x.v.size(), seed, low, high);
  std::copy(values.begin(), values.end(), x.v.begin());
  return x;
}

Image4 flat(const Image4& x) { return {x.n, x.c * x.h * x.w, 1, 1, x.v}; }

Image4 convertInput(const std::vector<std::uint8_t>& bytes, int n, int h, int w, int c,
                    const std::vector<float>& mean) {
  const bool perChannel = mean.size() == static_cast<std::size_t>(c);
  return generate(n, c, h, w, [&](int in, int ic, int iy, int ix) {
    const std::size_t at = (static_cast<std::size_t>(iy) * w + ix) * c + ic;
    const double m = mean.empty() ? 0 : mean[perChannel ? ic : at];
    return bytes[static_cast<std::size_t>(in) * h * w * c + at] - m;
  });
}

Image4 convolution(const Image4& x, const std::vector<float>& filter,
                   const std::vector<float>& bias, int kernel, int stride, int pad) {
  Image4 padded = zeros(x.n, x.c, x.h + 2 * pad, x.w + 2 * pad);
  for (int row = 0; row < x.n * x.c * x.h; ++row)
    std::copy_n(&x.v[x.index(0, 0, row, 0)], x.w,
                &padded.v[padded.index(0, row / x.h, row % x.h + pad, pad)]);

  const int taps = x.c * kernel * kernel;
  const int outputs = static_cast<int>(filter.size()) / taps;
  Image4 y =
      zeros(x.n, outputs, (padded.h - kernel) / stride + 1, (padded.w - kernel) / stride + 1);
#pragma omp parallel for collapse(2)
  for (int n = 0; n < x.n; ++n)
    for (int o = 0; o < outputs; ++o) {
      double* out = &y.v[y.index(n, o, 0, 0)];
      std::fill_n(out, y.h * y.w, bias.empty() ? 0.0 : bias[o]);
      for (int tap = 0; tap < taps; ++tap) {
        const double weight = filter[static_cast<std::size_t>(o) * taps + tap];
        const int u = tap / kernel % kernel;
        const double* in = &padded.v[padded.index(n, tap / kernel / kernel, u, tap % kernel)];
        for (int i = 0; i < y.h; ++i)
          for (int j = 0; j < y.w; ++j)
            out[i * y.w + j] += weight * in[i * stride * padded.w + j * stride];
      }
    }
  return y;
}

Image4 convolutionScale(Image4 x, std::vector<float> filter, std::vector<float> bias, int kernel,
                        int stride, int pad) {
  for (double& value : x.v) value *= value;
  for (float& value : filter) value *= value;
  for (float& value : bias) value *= value;
  Image4 scale = convolution(x, filter, bias, kernel, stride, pad);
  for (double& value : scale.v) value = std::sqrt(value);
  return scale;
}

Image4 lrn(const Image4& x, int size, double alpha, double beta, double k) {
  return generate(x.n, x.c, x.h, x.w, [&](int n, int c, int i, int j) {
    const int first = c - (size - 1) / 2;
    double squares = 0;
    for (int near = std::max(0, first); near < std::min(x.c, first + size); ++near)
      squares += x.at(n, near, i, j) * x.at(n, near, i, j);
    return x.at(n, c, i, j) / std::pow(k + alpha / size * squares, beta);
  });
}

Image4 relu(Image4 x) {
  for (double& value : x.v)
    if (value < 0) value = 0;
  return x;
}

Image4 softmax(const Image4& x) {
  return generate(x.n, x.c, x.h, x.w, [&](int n, int c, int i, int j) {
    double sum = 0;
    for (int each = 0; each < x.c; ++each) sum += std::exp(x.at(n, each, i, j));
    return std::exp(x.at(n, c, i, j)) / sum;
  });
}

Image4 pool(const Image4& x, Pool kind, int window, int stride, int pad) {
  const int h = (x.h + 2 * pad - window + stride - 1) / stride + 1;
  const int w = (x.w + 2 * pad - window + stride - 1) / stride + 1;
  return generate(x.n, x.c, h, w, [&](int n, int c, int i, int j) {
    const int top = i * stride - pad, bottom = std::min(top + window, x.h + pad);
    const int left = j * stride - pad, right = std::min(left + window, x.w + pad);
    double sum = 0;
    double largest = -std::numeric_limits<double>::infinity();
    for (int row = std::max(0, top); row < std::min(bottom, x.h); ++row)
      for (int column = std::max(0, left); column < std::min(right, x.w); ++column) {
        sum += x.at(n, c, row, column);
        largest = std::max(largest, x.at(n, c, row, column));
      }
    if (kind == Pool::max && !std::isnan(sum)) return largest;
    return sum / ((bottom - top) * (right - left));
  });
}

Image4 concat(const std::vector<Image4>& parts) {
  Image4 y{parts[0].n, 0, parts[0].h, parts[0].w, {}};
  for (const Image4& part : parts) y.c += part.c;
  for (int n = 0; n < y.n; ++n)
    for (const Image4& part : parts) {
      const double* image = &part.v[part.index(n, 0, 0, 0)];
      y.v.insert(y.v.end(), image, image + part.index(1, 0, 0, 0));
    }
  return y;
}

double roundings(double count, double more) {
  return (4 * std::sqrt(count) + more) * std::numeric_limits<float>::epsilon();
}

void expectClose(const std::vector<float>& got, const Image4& expected, const Image4& scale,
                 double relative) {
  ASSERT_EQ(expected.v.size(), got.size());
  int shown = 0;
  for (int i = 0; i < static_cast<int>(got.size()) && shown < 5; ++i) {
    const double e = expected.v[i];
    const double bound = relative * std::abs(scale.v[i]);
    if (std::isnan(e) ? std::isnan(got[i]) : e == got[i] || std::abs(e - got[i]) <= bound) continue;
    const int row = i / expected.w, plane = row / expected.h;
    ADD_FAILURE() << "n " << plane / expected.c << " c " << plane % expected.c << " h "
                  << row % expected.h << " w " << i % expected.w << ": expected " << e << " ± "
                  << bound << ", got " << got[i];
    ++shown;
  }
}

void expectClose(const Tensor& got, const Image4& expected, const Image4& scale, double relative) {
  const int4 shape = got.base->shape;
  ASSERT_EQ((std::vector<int>{expected.n, expected.c, expected.h, expected.w}),
            (std::vector<int>{shape.x, shape.y, shape.z, shape.w}));
  expectClose(download(got), expected, scale, relative);
}

void expectEqual(const Tensor& got, const Image4& expected) {
  expectClose(got, expected, expected, 0);
}

}  // namespace facezoo::test
