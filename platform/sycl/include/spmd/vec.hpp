#pragma once
// Registers as the compiler knows them: N elements of T with arithmetic, comparison and choice built in, at
// any width. What a target adds to this stands in target/.

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace spmd {

template <class T, int N>
struct vector_of {
  typedef T type __attribute__((vector_size(N * sizeof(T))));  // NOLINT: an alias would drop the attribute
};
/// N elements of T in one register, or in a part of one.
template <class T, int N>
using vec = typename vector_of<T, N>::type;

/// Calls body(std::integral_constant<int, 0>()) … up to Count - 1, written out.
template <int Count, class Body>
[[gnu::always_inline]] inline void unrolled(const Body& body) {
  [&]<int... I>(std::integer_sequence<int, I...>) [[gnu::always_inline]] {
    (body(std::integral_constant<int, I>()), ...);
  }
  (std::make_integer_sequence<int, Count>());
}

/// Element at(i) of `a`, with `b` behind it, in place i of N. `at` is a lambda without captures.
template <int N, class V, class At>
[[gnu::always_inline]] inline auto shuffled(V a, V b, At) {
  return [&]<int... I>(std::integer_sequence<int, I...>) [[gnu::always_inline]] {
    return __builtin_shufflevector(a, b, At{}(I)...);
  }
  (std::make_integer_sequence<int, N>());
}
template <int N, class V, class At>
[[gnu::always_inline]] inline auto shuffled(V a, At at) {
  return shuffled<N>(a, a, at);
}

/// make(i) in place i of N, for a register of constants.
template <class T, int N, class Make>
constexpr vec<T, N> constants(Make make) {
  return [&]<int... I>(std::integer_sequence<int, I...>) {
    return vec<T, N>{static_cast<T>(make(I))...};
  }
  (std::make_integer_sequence<int, N>());
}

/// `uniform` in every place, bit for bit.
template <int N, class T>
[[gnu::always_inline]] inline vec<T, N> repeated(T uniform) {
  return [&]<int... I>(std::integer_sequence<int, I...>) [[gnu::always_inline]] {
    return vec<T, N>{(static_cast<void>(I), uniform)...};
  }
  (std::make_integer_sequence<int, N>());
}

/// A register of the elements at p, which need not be aligned.
template <class V>
[[gnu::always_inline]] inline V loaded(const void* p) {
  V value;
  std::memcpy(&value, p, sizeof value);
  return value;
}

}  // namespace spmd
