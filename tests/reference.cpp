#include "reference.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <numeric>
#include <sstream>
#include <stdexcept>

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

/// Adds `weight` times every `stride`-th of `in` to the `count` values of `out`. Under sanitizers,
/// most of the tests' time would be spent here, so that this function is left unchecked.
#ifdef __clang__
[[clang::no_sanitize("address", "thread", "undefined")]]
#endif
void addProducts(double weight, const double* in, int stride, double* out, int count) {
  for (int i = 0; i < count; ++i) out[i] += weight * in[i * stride];
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

Tensor upload(const Image4& x) {
  return upload(std::vector<float>(x.v.begin(), x.v.end()), {x.n, x.c, x.h, x.w});
}

Image4 flat(const Image4& x) { return {x.n, x.c * x.h * x.w, 1, 1, x.v}; }

Image4 convertInput(const Image4& bytes, const std::vector<float>& mean) {
  const bool perChannel = mean.size() == static_cast<std::size_t>(bytes.w);
  return generate(bytes.n, bytes.w, bytes.c, bytes.h, [&](int n, int c, int y, int x) {
    const double m = mean.empty() ? 0 : mean[perChannel ? c : bytes.index(0, y, x, c)];
    return bytes.at(n, y, x, c) - m;
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
          addProducts(weight, in + i * stride * padded.w, stride, out + i * y.w, y.w);
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

Image4 batchNormalization(const Image4& x, const std::array<std::vector<float>, 4>& p,
                          double epsilon) {
  return generate(x.n, x.c, x.h, x.w, [&](int n, int c, int i, int j) {
    return p[0][c] * (x.at(n, c, i, j) - p[2][c]) / std::sqrt(p[3][c] + epsilon) + p[1][c];
  });
}

Image4 sliceMax(const Image4& x) {
  return generate(x.n, x.c / 2, x.h, x.w, [&](int n, int c, int i, int j) {
    const double first = x.at(n, c, i, j), second = x.at(n, c + x.c / 2, i, j);
    return first < second ? second : first;
  });
}

namespace {

using Weights = Chain::Weights;
using Sizes = std::vector<double>;
constexpr double pixels = 60;  // the scale of the activations behind most layers

const std::vector<float>& get(Weights& weights, const std::string& name, int count, double low,
                              double high) {
  const auto [entry, added] = weights.try_emplace(name);
  if (added) {
    const auto own = static_cast<unsigned>(weights.size());
    entry->second = seededValues(count, 1000 * weights.seed + own, low, high);
  }
  return entry->second;
}

double rootMeanSquare(const Image4& x) {
  return std::sqrt(std::inner_product(x.v.begin(), x.v.end(), x.v.begin(), 0.0) /
                   static_cast<double>(x.v.size()));
}

/// @param s outputs, kernel (1), stride (1), padding (what keeps the size at stride 1)
Image4 sums(Weights& w, const std::string& name, const Image4& x, const Sizes& s, double scale,
            bool hasBias = true) {
  const auto size = [&](std::size_t i, int most) {
    return static_cast<int>(i < s.size() ? s[i] : most);
  };
  const int outputs = size(0, 0), kernel = size(1, 1), taps = x.c * kernel * kernel;
  const double range = scale / rootMeanSquare(x) * std::sqrt(3.0 / taps);
  const std::vector<float>& filter = get(w, name + "-0", taps * outputs, -range, range);
  std::vector<float> bias;
  if (hasBias) bias = get(w, name + "-1", outputs, -scale / 2, scale / 2);
  return convolution(x, filter, bias, kernel, size(2, 1), size(3, kernel / 2));
}

Image4 cba(Weights& w, const std::string& name, const Image4& x, const Sizes& s) {
  return relu(sums(w, name, x, s, pixels));
}

Image4 normalized(Weights& w, const std::string& name, const Image4& x, const Sizes& s) {
  const Image4 y = sums(w, name, x, s, 0.1, false);  // so small that epsilon shows
  const double r = rootMeanSquare(y);
  const auto each = [&](const char* suffix, double low, double high) {
    return get(w, name + "/bn-" + suffix, y.c, low, high);
  };
  return relu(
      batchNormalization(y,
                         {each("gamma", 0.5, 1.5), each("beta", -0.5, 0.5),
                          each("avg_mean", -r / 2, r / 2), each("avg_var", r * r / 2, 2 * r * r)},
                         1e-5));
}

Image4 projection(Weights& w, const std::string& name, Image4 x, const Sizes& s) {
  const double r = rootMeanSquare(x);
  const std::vector<float>& mean = get(w, name + "-1", x.c, -r, r);
  for (std::size_t i = 0; i < x.v.size(); ++i) x.v[i] -= mean[i % x.c];
  return sums(w, name, x, s, 1, false);
}

Image4 v1(Weights& w, const std::string& p, const Image4& x, const Sizes& s) {
  return concat({cba(w, p + "1x1", x, {s.at(0)}),
                 cba(w, p + "3x3", cba(w, p + "3x3_reduce", x, {s.at(1)}), {s.at(2), 3}),
                 cba(w, p + "5x5", cba(w, p + "5x5_reduce", x, {s.at(3)}), {s.at(4), 5}),
                 cba(w, p + "pool_proj", pool(x, Pool::max, 3, 1, 1), {s.at(5)})});
}

/// @param s the constructor's widths and flag; without a first branch, the block that halves
Image4 v3(Weights& w, const std::string& p, const Image4& x, const Sizes& s) {
  const bool halves = s.at(0) == 0;
  const double stride = halves ? 2 : 1;
  std::vector<Image4> parts;
  if (!halves) parts.push_back(normalized(w, p + "1x1", x, {s.at(0)}));
  Image4 y = normalized(w, p + "3x3_reduce", x, {s.at(1)});
  parts.push_back(normalized(w, p + "3x3", y, {s.at(2), 3, stride}));
  y = normalized(w, p + "double3x3_reduce", x, {s.at(3)});
  y = normalized(w, p + "double3x3a", y, {s.at(4), 3});
  parts.push_back(normalized(w, p + "double3x3b", y, {s.at(4), 3, stride}));
  y = halves ? pool(x, Pool::max, 3, 2, 0)
             : pool(x, s.at(6) != 0 ? Pool::max : Pool::average, 3, 1, 1);
  parts.push_back(halves ? y : normalized(w, p + "pool_proj", y, {s.at(5)}));
  return concat(parts);
}

Image4 residual(Weights& w, const std::string& name, const Image4& x) {
  const double outputs = 2 * x.c;
  Image4 y = sliceMax(sums(w, name + "_conv1", x, {outputs, 3}, pixels));
  y = sliceMax(sums(w, name + "_conv2", y, {outputs, 3}, pixels));
  for (std::size_t i = 0; i < y.v.size(); ++i) y.v[i] += x.v[i];
  return y;
}

}  // namespace

Image4 Chain::run(const std::string& steps, Image4 x) {
  std::istringstream all(steps);
  for (std::string step; std::getline(all, step, ';');) {
    std::istringstream words(step);
    std::string layer, name;
    std::getline(std::getline(words >> std::ws, layer, ':'), name, ' ');
    const Sizes s{std::istream_iterator<double>(words), {}};
    const int size = s.empty() ? 0 : static_cast<int>(s[0]);
    const auto join = [&](const std::string& to, const Image4& part) {
      Image4& joined = kept[to];
      joined = joined.v.empty() ? part : concat({joined, part});
      return x;
    };
    const auto result = [&]() -> Image4 {
      if (layer == "image")
        return convertInput(x, get(weights, "inMean-0", x.c * x.h * x.w, 100, 156));
      if (layer == "means") return convertInput(x, {s.begin(), s.end()});
      if (layer == "cba") return cba(weights, name, x, s);
      if (layer == "conv") return sums(weights, name, x, s, pixels);
      if (layer == "normalized") return normalized(weights, name, x, s);
      if (layer == "flat") return flat(x);
      if (layer == "project") return projection(weights, name, x, s);
      if (layer == "max") return pool(x, Pool::max, size, s.at(1), s.at(2));
      if (layer == "avg") return pool(x, Pool::average, size, s.at(1), s.at(2));
      if (layer == "lrn") return lrn(x, size, s.at(1), s.at(2), s.at(3));
      if (layer == "relu") return relu(x);
      if (layer == "mfm") return sliceMax(x);
      if (layer == "v1") return v1(weights, name, x, s);
      if (layer == "v3") return v3(weights, name, x, s);
      if (layer == "residual") return residual(weights, name, x);
      if (layer == "norm") {
        const std::vector<float> ones(x.index(1, 0, 0, 0), 1);
        kept["norm"] = convolutionScale(flat(x), ones, {}, 1, 1, 0);
        return x;
      }
      if (layer == "set") return kept[name] = x;
      if (layer == "get") return kept.at(name);
      const std::string head = "loss3/classifier_" + name;
      if (layer == "classify") return join("heads", softmax(sums(weights, head, flat(x), s, 1)));
      if (layer == "regress") return join("heads", sums(weights, head, flat(x), s, 1));
      if (layer == "join") return join(name, x);
      throw std::invalid_argument("no step of a chain: " + step);
    };
    x = result();
  }
  return x;
}

Image4 largest(Image4 x) {
  double most = 0;
  for (double value : x.v) most = std::max(most, std::abs(value));
  std::fill(x.v.begin(), x.v.end(), most);
  return x;
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
    ADD_FAILURE() << "value " << i << ": expected " << e << " ± " << bound << ", got " << got[i];
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
