/// @file
/// Vectors of the instruction set that a unit is compiled for. They are passed by reference: by
/// value, they would need the same instruction set on both sides.
#pragma once

namespace host_device {
namespace {

template <int Count>
struct VectorOf {
  typedef float type [[gnu::vector_size(Count * 4)]];
  typedef float unaligned [[gnu::vector_size(Count * 4), gnu::aligned(4), gnu::may_alias]];
};
template <>
struct VectorOf<1> {
  using type = float;
  using unaligned = float;
};

/// kLanes: floats in a vector. kRows: rows of a tile; kRows * kWidest sums, a row of kWidest
/// vectors and a weight should fit the registers.
#if defined(__AVX512F__)
constexpr int kLanes = 16, kRows = 8;
#elif defined(__AVX2__)
constexpr int kLanes = 8, kRows = 4;
#elif defined(__aarch64__)
constexpr int kLanes = 4, kRows = 8;
#else
constexpr int kLanes = 4, kRows = 4;
#endif

template <int Count>
[[gnu::always_inline]] inline void load(const float* from, typename VectorOf<Count>::type& to) {
  to = *reinterpret_cast<const typename VectorOf<Count>::unaligned*>(from);
}
template <int Count>
[[gnu::always_inline]] inline void store(const typename VectorOf<Count>::type& from, float* to) {
  *reinterpret_cast<typename VectorOf<Count>::unaligned*>(to) = from;
}

using Vector = VectorOf<kLanes>::type;
[[gnu::always_inline]] inline void load(const float* from, Vector& to) { load<kLanes>(from, to); }
[[gnu::always_inline]] inline void store(const Vector& from, float* to) { store<kLanes>(from, to); }

// Shuffles name each lane, and how many there are varies.
template <int... I>
struct Indices {};
template <int N, int... I>
struct IndicesBelow : IndicesBelow<N - 1, N - 1, I...> {};
template <int... I>
struct IndicesBelow<0, I...> : Indices<I...> {};

/// Every second element of a and b together, from the first or the second on.
template <int First, int Count, int... I>
[[gnu::always_inline]] inline void everySecond(const typename VectorOf<Count>::type& a,
                                               const typename VectorOf<Count>::type& b,
                                               typename VectorOf<Count>::type& to, Indices<I...>) {
  to = __builtin_shufflevector(a, b, (2 * I + First)...);
}

}  // namespace
}  // namespace host_device
