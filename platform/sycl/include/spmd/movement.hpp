#pragma once
// Movement between lanes, and the sums and trees built on it.

#include "spmd/convert.hpp"

namespace spmd {

/// Element index[l] of x in lane l. Through the stack: about 8 ns for 32 lanes.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N> picked(const lanes<T, N>& x, const lanes<std::int32_t, N>& index) {
  if constexpr (reduced<T>) {
    return lanes<T, N>(picked(x.w, index));
  } else {
    alignas(64) T from[N], to[N];
    alignas(64) std::int32_t at[N];
    std::memcpy(from, &x, sizeof from);
    std::memcpy(at, &index, sizeof at);
    for (int l = 0; l < N; ++l) to[l] = from[at[l]];
    lanes<T, N> result;
    std::memcpy(&result, to, sizeof to);
    return result;
  }
}

/// Element (l XOR mask) of x in lane l, for a uniform mask below N. 1 shuffle per register.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N> permuted_by_xor(const lanes<T, N>& x, int mask) {
  if constexpr (reduced<T>) {
    return lanes<T, N>(permuted_by_xor(x.w, mask));
  } else if constexpr (N > native_lanes<T>) {
    const auto lo = permuted_by_xor(x.lo, mask & (N / 2 - 1)), hi = permuted_by_xor(x.hi, mask & (N / 2 - 1));
    return mask & (N / 2) ? lanes<T, N>(hi, lo) : lanes<T, N>(lo, hi);
  } else {
    // Words of 32 bits: a 64-bit lane is two of them, so that its mask counts twice.
    constexpr int words = sizeof(T) / 4, n = N * words;
    constexpr auto own = constants<std::int32_t, n>([](int i) { return i; });
    using word_register = vec<std::int32_t, n>;
    return lanes<T, N>(reinterpret_cast<vec<T, N>>(
        __builtin_shuffle(reinterpret_cast<word_register>(x.v), own ^ (mask * words))));
  }
}

/// The value of lane 0.
template <class T, int N>
[[gnu::always_inline]] inline T first_lane(const lanes<T, N>& x) {
  if constexpr (reduced<T>) {
    return T(first_lane(x.w));
  } else if constexpr (N > native_lanes<T>) {
    return first_lane(x.lo);
  } else {
    return x.v[0];
  }
}

/// `op` over all lanes, where lane l takes in lane l + stride for stride N / 2, N / 4, …, 1.
template <class T, int N, class Op>
[[gnu::always_inline]] inline T tree_reduce(const lanes<T, N>& x, const Op& op) {
  if constexpr (N > 8) {
    return tree_reduce(op(lower(x), upper(x)), op);
  } else {
    lanes<T, N> all = x;
    unrolled<std::bit_width(static_cast<unsigned>(N)) - 1>(
        [&](auto step) [[gnu::always_inline]] { all = op(all, permuted_by_xor(all, N >> (step + 1))); });
    return first_lane(all);
  }
}

/// The sum of all lanes in T, where lane l takes in lane l + stride for stride N / 2, N / 4, …, 1.
template <class T, int N>
[[gnu::always_inline]] inline T tree_sum(const lanes<T, N>& x) {
  return tree_reduce(x, [](const auto& a, const auto& b) [[gnu::always_inline]] { return a + b; });
}

}  // namespace spmd
