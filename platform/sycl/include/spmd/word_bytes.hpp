#pragma once
// The four bytes of every lane's word: products of bytes summed in integers, and bytes spread over lanes. For
// gangs of many lanes; a kernel's scalar reading does the same element by element.

#include <array>

#include "spmd/memory.hpp"

namespace spmd {

/// A register of words as its bytes.
template <class Byte, class V>
[[gnu::always_inline]] inline auto bytes_of(V words) {
  return reinterpret_cast<vec<Byte, static_cast<int>(sizeof(V) / sizeof(Byte))>>(words);
}

/// sum + a0 * b0 + … + a3 * b3 per lane, with the bytes of `a` unsigned and those of `b` signed. No two
/// neighbouring products may add up to 2^15 or more. 3 operations, or 1 where the target has them in one.
template <int N>
[[gnu::always_inline]] inline lanes<std::int32_t, N> dot_bytes(const lanes<std::int32_t, N>& sum,
                                                               const lanes<std::uint32_t, N>& a,
                                                               const lanes<std::uint32_t, N>& b) {
  return per_register(
      [](auto s, auto x, auto y) [[gnu::always_inline]] {
        return target::dot_bytes(s, bytes_of<std::uint8_t>(x), bytes_of<std::int8_t>(y));
      },
      sum, a, b);
}

/// (a0 * b0 + a1 * b1) * w0 + (a2 * b2 + a3 * b3) * w1 per lane under the same condition, with the 16-bit
/// halves w0 and w1 of `weights`, which are signed. 2 operations.
template <int N>
[[gnu::always_inline]] inline lanes<std::int32_t, N> weighted_dot_bytes(
    const lanes<std::uint32_t, N>& a, const lanes<std::uint32_t, N>& b,
    const lanes<std::uint32_t, N>& weights) {
  return per_register_as<std::int32_t>(
      [](auto x, auto y, auto w) [[gnu::always_inline]] {
        return target::weighted_dot_bytes(bytes_of<std::uint8_t>(x), bytes_of<std::int8_t>(y),
                                          bytes_of<std::int16_t>(w));
      },
      a, b, weights);
}

/// Byte at(l, b) of the 16 in byte b of lane l's word, 0 where `at`, a lambda without captures, gives -1. 1
/// shuffle per register.
template <int N, int First = 0, class At>
[[gnu::always_inline]] inline lanes<std::uint32_t, N> spread_bytes(vec<std::uint8_t, 16> bytes, At at) {
  if constexpr (N > native_lanes<std::uint32_t>) {
    return {spread_bytes<N / 2, First>(bytes, at), spread_bytes<N / 2, First + N / 2>(bytes, at)};
  } else {
    constexpr auto order = constants<std::int8_t, 4 * N>([](int i) { return At{}(First + i / 4, i % 4); });
    const auto in_all_quarters = shuffled<4 * N>(bytes, [](int i) { return i % 16; });
    return lanes<std::uint32_t, N>(
        reinterpret_cast<vec<std::uint32_t, N>>(target::shuffled_bytes(in_all_quarters, order)));
  }
}

/// table[b & 15] for every byte b of the words. 2 operations.
template <int N>
[[gnu::always_inline]] inline lanes<std::uint32_t, N> looked_up_bytes(vec<std::uint8_t, 16> table,
                                                                      const lanes<std::uint32_t, N>& words) {
  return per_register(
      [table]<class V>(V x) [[gnu::always_inline]] {
        const auto in_all_quarters = shuffled<sizeof(V)>(table, [](int i) { return i % 16; });
        return reinterpret_cast<V>(
            target::shuffled_bytes(in_all_quarters, bytes_of<std::int8_t>(x & 0x0F0F0F0F)));
      },
      words);
}

/// Byte i of `set` where bit Bit of byte i of `bits` is set, else that of `clear`. 2 operations.
template <int Bit, int N>
[[gnu::always_inline]] inline lanes<std::uint32_t, N> chosen_by_bit(const lanes<std::uint32_t, N>& bits,
                                                                    const lanes<std::uint32_t, N>& set,
                                                                    const lanes<std::uint32_t, N>& clear) {
  return per_register(
      []<class V>(V from, V x, V y) [[gnu::always_inline]] {
        const auto top = bytes_of<std::int8_t>(from << (7 - Bit));
        return reinterpret_cast<V>(top < 0 ? bytes_of<std::int8_t>(x) : bytes_of<std::int8_t>(y));
      },
      bits, set, clear);
}

/// Lane I of each quarter of 128 bits in all lanes of the quarter. 1 shuffle per register.
template <int I, class T, int N>
[[gnu::always_inline]] inline lanes<T, N> repeated_in_quarters(const lanes<T, N>& x) {
  constexpr int quarter = 16 / sizeof(T);
  return per_register(
      []<class V>(V v) [[gnu::always_inline]] {
        return shuffled<sizeof(V) / sizeof(T)>(v, [](int l) { return l / quarter * quarter + I; });
      },
      x);
}

/// The half at p as float in all lanes. 1 load, 1 shuffle and 1 conversion for all registers.
template <int N>
[[gnu::always_inline]] inline lanes<float, N> repeated_half(const half* p) {
  if constexpr (N > native_lanes<float>) {
    const auto part = repeated_half<N / 2>(p);
    return {part, part};
  } else {
    checked(p, sizeof *p);
    return lanes<float, N>(target::from_halves(repeated<N>(loaded<std::uint16_t>(p))));
  }
}

/// The two halves at p. 1 load, 1 conversion and 2 shuffles for all registers.
template <int N>
[[gnu::always_inline]] inline std::array<lanes<float, N>, 2> repeated_halves(const half* p) {
  if constexpr (N > native_lanes<float>) {
    const auto [first, second] = repeated_halves<N / 2>(p);
    return {lanes<float, N>(first, first), lanes<float, N>(second, second)};
  } else {
    checked(p, 2 * sizeof *p);
    const auto in_turn = reinterpret_cast<vec<std::uint16_t, N>>(repeated<N / 2>(loaded<std::uint32_t>(p)));
    const lanes<float, N> both(target::from_halves(in_turn));
    return {repeated_in_quarters<0>(both), repeated_in_quarters<1>(both)};
  }
}

}  // namespace spmd
