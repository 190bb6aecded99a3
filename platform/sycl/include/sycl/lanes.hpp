#pragma once
// lanes<T, N>: the values of one variable in the N work-items of a gang, held in AVX2 registers, and
// arithmetic in T on them. N is 8, 16 or 32; with one work-item per gang a varying value is the plain scalar.
// Half and bfloat16 are held widened to float and rounded after every operation, so each register value is
// one that the type can hold.

#include <immintrin.h>

#include <array>
#include <bit>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "sycl/half.hpp"

namespace spmd {

using sycl::half;
using sycl::ext::kelvor::bfloat16;

template <class T>
concept reduced = std::same_as<T, half> || std::same_as<T, bfloat16>;

/// The type that arithmetic in T is done in, and that registers hold.
template <class T>
using wide = std::conditional_t<reduced<T>, float, T>;

template <class T, int Bytes>
struct vector_of {
  typedef T type __attribute__((vector_size(Bytes)));  // NOLINT: an alias would drop the attribute
};
/// One AVX2 register of T.
template <class T>
using native = typename vector_of<T, 32>::type;
template <class T>
inline constexpr int native_lanes = 32 / static_cast<int>(sizeof(T));

/// Calls body(std::integral_constant<int, 0>()) … up to Count - 1, written out.
template <int Count, class Body>
[[gnu::always_inline]] inline void unrolled(const Body& body) {
  [&]<int... I>(std::integer_sequence<int, I...>) [[gnu::always_inline]] {
    (body(std::integral_constant<int, I>()), ...);
  }
  (std::make_integer_sequence<int, Count>());
}

/// `uniform` in every lane of a register, bit for bit.
template <class T>
[[gnu::always_inline]] inline native<T> broadcast(T uniform) {
  if constexpr (native_lanes<T> == 8) {
    return native<T>{uniform, uniform, uniform, uniform, uniform, uniform, uniform, uniform};
  } else {
    static_assert(native_lanes<T> == 4);
    return native<T>{uniform, uniform, uniform, uniform};
  }
}

template <class T, int N>
struct lanes;

/// A value per work-item: lanes, or the scalar where a gang has one lane.
template <class T, int N>
using varying_t =
    typename std::conditional_t<N == 1, std::type_identity<T>, std::type_identity<lanes<T, N>>>::type;

template <class T, int N>
requires(!reduced<T> && !std::same_as<T, bool> && N == native_lanes<T>) struct lanes<T, N> {
  native<T> v;
  lanes() = default;
  [[gnu::always_inline]] explicit lanes(native<T> value) : v(value) {}
  [[gnu::always_inline]] lanes(T uniform)
      : v(broadcast(uniform)) {}  // NOLINT: a uniform value is a varying one
};

template <class T, int N>
requires(!reduced<T> && !std::same_as<T, bool> && N > native_lanes<T>) struct lanes<T, N> {
  lanes<T, N / 2> lo, hi;
  lanes() = default;
  [[gnu::always_inline]] lanes(lanes<T, N / 2> low, lanes<T, N / 2> high) : lo(low), hi(high) {}
  [[gnu::always_inline]] lanes(T uniform) : lo(uniform), hi(uniform) {}  // NOLINT
};

/// Rounds floats to the nearest value of a reduced type. The result stays in float registers.
template <reduced T>
[[gnu::always_inline]] inline native<float> round_native(native<float> x) {
  if constexpr (std::same_as<T, half>) {
    return _mm256_cvtph_ps(_mm256_cvtps_ph(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
  } else {
    const auto bits = reinterpret_cast<native<std::uint32_t>>(x);
    return reinterpret_cast<native<float>>((bits + 0x7FFF + (bits >> 16 & 1)) & 0xFFFF0000);
  }
}

template <reduced T, int N>
struct lanes<T, N> {
  lanes<float, N> w;
  lanes() = default;
  [[gnu::always_inline]] explicit lanes(lanes<float, N> exact) : w(exact) {}
  [[gnu::always_inline]] lanes(T uniform) : w(float(uniform)) {}  // NOLINT
};

/// A condition per lane: all bits of the 32-bit word set, or none.
template <int N>
struct lanes<bool, N> {
  lanes<std::int32_t, N> mask;
  lanes() = default;
  [[gnu::always_inline]] explicit lanes(lanes<std::int32_t, N> bits) : mask(bits) {}
  [[gnu::always_inline]] lanes(bool uniform) : mask(uniform ? -1 : 0) {}  // NOLINT
};

template <class T>
inline constexpr bool is_lanes = false;
template <class T, int N>
inline constexpr bool is_lanes<lanes<T, N>> = true;

/// Number of lanes of a varying type, 1 for a scalar.
template <class V>
inline constexpr int lane_count = 1;
template <class T, int N>
inline constexpr int lane_count<lanes<T, N>> = N;

template <class V>
struct element_of {
  using type = V;
};
template <class T, int N>
struct element_of<lanes<T, N>> {
  using type = T;
};
/// The element type of a varying type.
template <class V>
using element = typename element_of<V>::type;

/// Applies an operation on registers to lanes of plain types, register by register.
template <class F, class T, int N, class... More>
[[gnu::always_inline]] inline auto per_register(const F& f, const lanes<T, N>& first, const More&... more) {
  if constexpr (N == native_lanes<T>) {
    return lanes<T, N>(f(first.v, more.v...));
  } else {
    return lanes<T, N>(per_register(f, first.lo, more.lo...), per_register(f, first.hi, more.hi...));
  }
}

/// The same for an operation that gives registers of another type To of the same width.
template <class To, class F, class T, int N>
[[gnu::always_inline]] inline lanes<To, N> per_register_as(const F& f, const lanes<T, N>& x) {
  static_assert(sizeof(To) == sizeof(T));
  if constexpr (N == native_lanes<T>) {
    return lanes<To, N>(f(x.v));
  } else {
    return lanes<To, N>(per_register_as<To>(f, x.lo), per_register_as<To>(f, x.hi));
  }
}

/// `exact` rounded to T lane by lane.
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> rounded(const lanes<float, N>& exact) {
  return lanes<T, N>(
      per_register([](native<float> x) [[gnu::always_inline]] { return round_native<T>(x); }, exact));
}

// Operators on plain types

template <class T>
concept plain = !reduced<T> && !std::same_as<T, bool>;

template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator+(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x + y; }, a, b);
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator-(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x - y; }, a, b);
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator*(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x * y; }, a, b);
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator/(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x / y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator%(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x % y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator&(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x & y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator|(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x | y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator^(const lanes<T, N>& a, const lanes<T, N>& b) {
  return per_register([](auto x, auto y) [[gnu::always_inline]] { return x ^ y; }, a, b);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator<<(const lanes<T, N>& a, int count) {
  return per_register([count](auto x) [[gnu::always_inline]] { return x << count; }, a);
}
template <std::integral T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator>>(const lanes<T, N>& a, int count) {
  return per_register([count](auto x) [[gnu::always_inline]] { return x >> count; }, a);
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator-(const lanes<T, N>& a) {
  return per_register([](auto x) [[gnu::always_inline]] { return -x; }, a);
}

// Operators on reduced types: in float, rounded once

template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator+(const lanes<T, N>& a, const lanes<T, N>& b) {
  return rounded<T>(a.w + b.w);
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator-(const lanes<T, N>& a, const lanes<T, N>& b) {
  return rounded<T>(a.w - b.w);
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator*(const lanes<T, N>& a, const lanes<T, N>& b) {
  return rounded<T>(a.w * b.w);
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator/(const lanes<T, N>& a, const lanes<T, N>& b) {
  return rounded<T>(a.w / b.w);
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<T, N> operator-(const lanes<T, N>& a) {
  return lanes<T, N>(-a.w);
}

// A uniform operand on either side

template <class T, int N>
[[gnu::always_inline]] inline auto operator+(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a + lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator-(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a - lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator*(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a * lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator/(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a / lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator%(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a % lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator&(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a & lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator|(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a | lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline auto operator^(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a ^ lanes<T, N>(b);
}

// Comparison and choice

/// The 32-bit mask of a comparison of registers, whatever their width.
template <class F, class T, int N>
[[gnu::always_inline]] inline lanes<std::int32_t, N> compare(const F& f, const lanes<T, N>& a,
                                                             const lanes<T, N>& b) {
  if constexpr (N > native_lanes<T> && N > 8) {
    return {compare(f, a.lo, b.lo), compare(f, a.hi, b.hi)};
  } else if constexpr (sizeof(T) == 4) {
    return lanes<std::int32_t, N>(f(a.v, b.v));
  } else {
    const auto low = __builtin_convertvector(f(a.lo.v, b.lo.v), typename vector_of<std::int32_t, 16>::type);
    const auto high = __builtin_convertvector(f(a.hi.v, b.hi.v), typename vector_of<std::int32_t, 16>::type);
    return lanes<std::int32_t, N>(__builtin_shufflevector(low, high, 0, 1, 2, 3, 4, 5, 6, 7));
  }
}

template <plain T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator<(const lanes<T, N>& a, const lanes<T, N>& b) {
  return lanes<bool, N>(compare([](auto x, auto y) [[gnu::always_inline]] { return x < y; }, a, b));
}
template <plain T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator==(const lanes<T, N>& a, const lanes<T, N>& b) {
  return lanes<bool, N>(compare([](auto x, auto y) [[gnu::always_inline]] { return x == y; }, a, b));
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator<(const lanes<T, N>& a, const lanes<T, N>& b) {
  return a.w < b.w;
}
template <reduced T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator==(const lanes<T, N>& a, const lanes<T, N>& b) {
  return a.w == b.w;
}
template <class T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator<(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return a < lanes<T, N>(b);
}
template <class T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator>(const lanes<T, N>& a, const lanes<T, N>& b) {
  return b < a;
}
template <class T, int N>
[[gnu::always_inline]] inline lanes<bool, N> operator>(const lanes<T, N>& a, std::type_identity_t<T> b) {
  return lanes<T, N>(b) < a;
}
template <int N>
[[gnu::always_inline]] inline lanes<bool, N> operator&(const lanes<bool, N>& a, const lanes<bool, N>& b) {
  return lanes<bool, N>(a.mask & b.mask);
}
template <int N>
[[gnu::always_inline]] inline lanes<bool, N> operator|(const lanes<bool, N>& a, const lanes<bool, N>& b) {
  return lanes<bool, N>(a.mask | b.mask);
}
template <int N>
[[gnu::always_inline]] inline lanes<bool, N> operator!(const lanes<bool, N>& a) {
  return lanes<bool, N>(a.mask ^ lanes<std::int32_t, N>(-1));
}

/// condition ? yes : no, lane by lane; both are evaluated.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N> select(const lanes<bool, N>& condition, const lanes<T, N>& yes,
                                                 const lanes<T, N>& no) {
  if constexpr (reduced<T>) {
    return lanes<T, N>(select(condition, yes.w, no.w));
  } else if constexpr (N > 8) {
    return {select(lanes<bool, N / 2>(condition.mask.lo), yes.lo, no.lo),
            select(lanes<bool, N / 2>(condition.mask.hi), yes.hi, no.hi)};
  } else if constexpr (sizeof(T) == 4) {
    return lanes<T, N>(condition.mask.v ? yes.v : no.v);
  } else {
    using mask4 = native<std::int64_t>;
    const auto low = __builtin_shufflevector(condition.mask.v, condition.mask.v, 0, 1, 2, 3);
    const auto high = __builtin_shufflevector(condition.mask.v, condition.mask.v, 4, 5, 6, 7);
    return {lanes<T, 4>(__builtin_convertvector(low, mask4) ? yes.lo.v : no.lo.v),
            lanes<T, 4>(__builtin_convertvector(high, mask4) ? yes.hi.v : no.hi.v)};
  }
}
template <class T>
[[gnu::always_inline]] inline T select(bool condition, T yes, std::type_identity_t<T> no) {
  return condition ? yes : no;
}

// Conversion

/// T(x): exact where T is wider, else rounded to nearest even. Float to integer truncates.
template <class To, class From, int N>
[[gnu::always_inline]] inline lanes<To, N> convert(const lanes<From, N>& x) {
  if constexpr (std::same_as<To, From>) {
    return x;
  } else if constexpr (reduced<From>) {
    return convert<To>(x.w);
  } else if constexpr (reduced<To>) {
    return rounded<To>(convert<float>(x));
  } else if constexpr (N > 8) {
    return {convert<To>(x.lo), convert<To>(x.hi)};
  } else if constexpr (sizeof(To) == sizeof(From)) {
    if constexpr (N == native_lanes<To>) {
      return lanes<To, N>(__builtin_convertvector(x.v, native<To>));
    } else {
      return {convert<To>(x.lo), convert<To>(x.hi)};
    }
  } else if constexpr (sizeof(To) > sizeof(From)) {
    return {lanes<To, 4>(__builtin_convertvector(__builtin_shufflevector(x.v, x.v, 0, 1, 2, 3), native<To>)),
            lanes<To, 4>(__builtin_convertvector(__builtin_shufflevector(x.v, x.v, 4, 5, 6, 7), native<To>))};
  } else {
    using half_register = typename vector_of<To, 16>::type;
    return lanes<To, N>(__builtin_shufflevector(__builtin_convertvector(x.lo.v, half_register),
                                                __builtin_convertvector(x.hi.v, half_register), 0, 1, 2, 3, 4,
                                                5, 6, 7));
  }
}
template <class To, class From>
requires(!is_lanes<From>) [[gnu::always_inline]] inline To convert(From x) {
  if constexpr (reduced<To>) {
    return To(static_cast<float>(x));
  } else if constexpr (reduced<From>) {
    return static_cast<To>(static_cast<float>(x));
  } else {
    return static_cast<To>(x);
  }
}

/// The same bits as another type of the same width.
template <plain To, plain From, int N>
[[gnu::always_inline]] inline lanes<To, N> bit_cast(const lanes<From, N>& x) {
  if constexpr (N == native_lanes<From>) {
    return lanes<To, N>(reinterpret_cast<native<To>>(x.v));
  } else {
    return {bit_cast<To>(x.lo), bit_cast<To>(x.hi)};
  }
}

/// x, which is a value of T as it stands (an integer of at most 8 bits, say): converted without rounding.
template <class To, class From, int N>
[[gnu::always_inline]] inline lanes<To, N> convert_exact(const lanes<From, N>& x) {
  if constexpr (reduced<To>) {
    return lanes<To, N>(convert<float>(x));
  } else {
    return convert<To>(x);
  }
}
template <class To, class From>
requires(!is_lanes<From>) [[gnu::always_inline]] inline To convert_exact(From x) {
  return convert<To>(x);
}

/// Halves of 8 lanes, byte `Byte` of each word as their upper byte: two neighbouring bytes in the two parts
/// of the register, so that they share their shuffles.
template <int Byte>
[[gnu::always_inline]] inline __m256i upper_bytes(native<std::uint32_t> word) {
  constexpr char a = Byte / 2 * 2, b = a + 1;
  const __m256i order =
      _mm256_setr_epi8(-1, a, -1, a + 4, -1, a + 8, -1, a + 12, -1, b, -1, b + 4, -1, b + 8, -1, b + 12, -1,
                       a, -1, a + 4, -1, a + 8, -1, a + 12, -1, b, -1, b + 4, -1, b + 8, -1, b + 12);
  return _mm256_permute4x64_epi64(_mm256_shuffle_epi8(reinterpret_cast<__m256i>(word), order), 0xD8);
}

/// The half whose upper byte is byte `Byte` of each word and whose lower byte is `Lower`, as float. 1
/// conversion, and a byte shuffle and a permutation for two neighbouring bytes.
template <int Byte, std::uint8_t Lower, int N>
[[gnu::always_inline]] inline lanes<float, N> half_from_upper_byte(const lanes<std::uint32_t, N>& word) {
  return per_register_as<float>(
      [](native<std::uint32_t> x) -> native<float> {
        __m256i halves = upper_bytes<Byte>(x);
        if constexpr (Lower != 0) halves = _mm256_or_si256(halves, _mm256_set1_epi16(Lower));
        return _mm256_cvtph_ps(_mm256_extracti128_si256(halves, Byte % 2));
      },
      word);
}
template <int Byte, std::uint8_t Lower>
[[gnu::always_inline]] inline float half_from_upper_byte(std::uint32_t word) {
  return sycl::host::half_value(static_cast<std::uint16_t>((word >> (8 * Byte) & 0xFF) << 8 | Lower));
}

/// The half that has the sign of byte `Byte` of each word, then a zero bit, then the byte's other seven bits,
/// as float: an eight-bit float with four exponent bits. Costs as above and 1 operation more.
template <int Byte, int N>
[[gnu::always_inline]] inline lanes<float, N> half_from_shifted_byte(const lanes<std::uint32_t, N>& word) {
  return per_register_as<float>(
      [](native<std::uint32_t> x) -> native<float> {
        const __m256i moved = _mm256_srai_epi16(upper_bytes<Byte>(x), 1);
        const __m256i halves = _mm256_and_si256(moved, _mm256_set1_epi16(static_cast<short>(0xBF80)));
        return _mm256_cvtph_ps(_mm256_extracti128_si256(halves, Byte % 2));
      },
      word);
}
template <int Byte>
[[gnu::always_inline]] inline float half_from_shifted_byte(std::uint32_t word) {
  const std::uint32_t byte = word >> (8 * Byte) & 0xFF;
  return sycl::host::half_value(static_cast<std::uint16_t>((byte & 0x80) << 8 | (byte & 0x7F) << 7));
}

/// The half whose bits are the low 16 of each word, whose upper 16 are 0, as float.
template <int N>
[[gnu::always_inline]] inline lanes<float, N> half_from_bits(const lanes<std::uint32_t, N>& bits) {
  return per_register_as<float>(
      [](native<std::uint32_t> x) -> native<float> {
        const auto words = reinterpret_cast<__m256i>(x);
        const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi32(words, words), 0xD8);
        return _mm256_cvtph_ps(_mm256_castsi256_si128(packed));
      },
      bits);
}
[[gnu::always_inline]] inline float half_from_bits(std::uint32_t bits) {
  return sycl::host::half_value(static_cast<std::uint16_t>(bits));
}

/// A table of 8 floats in a register, rounded to T once.
template <class T>
[[gnu::always_inline]] inline __m256 register_table(const float* table) {
  const __m256 values = _mm256_loadu_ps(table);
  if constexpr (reduced<T>) return round_native<T>(values);
  return values;
}

/// table[code] as T, where the code is the three bits from Bit of each word; the bits above are ignored. 2
/// operations.
template <class T, int Bit, int N>
[[gnu::always_inline]] inline lanes<T, N> table8(const std::array<float, 8>& table,
                                                 const lanes<std::uint32_t, N>& word) {
  const __m256 values = register_table<T>(table.data());
  return convert_exact<T>(per_register_as<float>(
      [values](native<std::uint32_t> x) -> native<float> {
        return _mm256_permutevar8x32_ps(values, reinterpret_cast<__m256i>(x >> Bit));
      },
      word));
}
template <class T, int Bit>
[[gnu::always_inline]] inline T table8(const std::array<float, 8>& table, std::uint32_t word) {
  return convert<T>(table[word >> Bit & 7]);
}

/// The same for four bits and 16 values. 5 operations.
template <class T, int Bit, int N>
[[gnu::always_inline]] inline lanes<T, N> table16(const std::array<float, 16>& table,
                                                  const lanes<std::uint32_t, N>& word) {
  const __m256 low = register_table<T>(table.data()), high = register_table<T>(table.data() + 8);
  return convert_exact<T>(per_register_as<float>(
      [low, high](native<std::uint32_t> x) -> native<float> {
        const auto at = reinterpret_cast<__m256i>(x >> Bit);
        const auto upper = reinterpret_cast<__m256>(x << (28 - Bit));  // the code's top bit as sign
        return _mm256_blendv_ps(_mm256_permutevar8x32_ps(low, at), _mm256_permutevar8x32_ps(high, at), upper);
      },
      word));
}
template <class T, int Bit>
[[gnu::always_inline]] inline T table16(const std::array<float, 16>& table, std::uint32_t word) {
  return convert<T>(table[word >> Bit & 15]);
}

/// table[code], negated where the bit above the three of the code is set. 5 operations.
template <class T, int Bit, int N>
[[gnu::always_inline]] inline lanes<T, N> signed_table8(const std::array<float, 8>& table,
                                                        const lanes<std::uint32_t, N>& word) {
  const __m256 values = register_table<T>(table.data());
  return convert_exact<T>(per_register_as<float>(
      [values](native<std::uint32_t> x) -> native<float> {
        const __m256 magnitude = _mm256_permutevar8x32_ps(values, reinterpret_cast<__m256i>(x >> Bit));
        const auto sign = reinterpret_cast<__m256>((x << (28 - Bit)) & 0x80000000u);
        return _mm256_or_ps(magnitude, sign);
      },
      word));
}
template <class T, int Bit>
[[gnu::always_inline]] inline T signed_table8(const std::array<float, 8>& table, std::uint32_t word) {
  const float magnitude = table[word >> Bit & 7];
  return convert<T>(word >> Bit & 8 ? -magnitude : magnitude);
}

/// The unsigned field of Width bits from bit Bit of each word, plus Offset, as float: the field is put into
/// the mantissa of a float whose unit is its lowest bit, and the rest of that float is taken away again. 3
/// operations, which use no shift or conversion port; where the field reaches into the exponent, the words
/// are shifted down by 12 bits first, once for all such fields.
template <int Width, int Bit, int Offset, int N>
[[gnu::always_inline]] inline lanes<float, N> field_value(const lanes<std::uint32_t, N>& word) {
  if constexpr (Bit + Width > 23) {
    return field_value<Width, Bit - 12, Offset>(word >> 12);
  } else {
    constexpr float unit_bias = static_cast<float>(1 << (23 - Bit));
    constexpr auto exponent = std::bit_cast<std::uint32_t>(unit_bias);
    const auto biased = (word & (((1u << Width) - 1) << Bit)) | exponent;
    return bit_cast<float>(biased) - (unit_bias - Offset);
  }
}
template <int Width, int Bit, int Offset>
[[gnu::always_inline]] inline float field_value(std::uint32_t word) {
  return static_cast<float>(static_cast<int>(word >> Bit & ((1u << Width) - 1)) + Offset);
}

// Multiply-add

/// a * b + c as a fused multiply-add of the wide type, rounded to T: the contraction of a multiply and an
/// add.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N> mad(const lanes<T, N>& a, const lanes<T, N>& b,
                                              const lanes<T, N>& c) {
  if constexpr (reduced<T>) {
    return rounded<T>(mad(a.w, b.w, c.w));
  } else {
    return per_register(
        [](native<T> x, native<T> y, native<T> z) -> native<T> {
          if constexpr (std::same_as<T, float>) {
            return _mm256_fmadd_ps(x, y, z);
          } else if constexpr (std::same_as<T, double>) {
            return _mm256_fmadd_pd(x, y, z);
          } else {
            return x * y + z;
          }
        },
        a, b, c);
  }
}
template <class T>
requires(!is_lanes<T>) [[gnu::always_inline]] inline T mad(T a, T b, T c) {
  if constexpr (reduced<T>) {
    return T(std::fma(float(a), float(b), float(c)));
  } else if constexpr (std::floating_point<T>) {
    return std::fma(a, b, c);
  } else {
    return a * b + c;
  }
}

// Movement between lanes

/// Element index[l] of x in lane l. Through the stack: about 8 ns for 32 lanes.
template <class T, int N>
[[gnu::always_inline]] inline lanes<T, N> picked(const lanes<T, N>& x, const lanes<std::int32_t, N>& index) {
  if constexpr (reduced<T>) {
    return lanes<T, N>(picked(x.w, index));
  } else {
    alignas(32) T from[N], to[N];
    alignas(32) std::int32_t at[N];
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
    constexpr int words = sizeof(T) / 4;
    const native<std::int32_t> word = {0, 1, 2, 3, 4, 5, 6, 7};
    const auto at = reinterpret_cast<__m256i>(word ^ (mask * words));
    return lanes<T, N>(
        reinterpret_cast<native<T>>(_mm256_permutevar8x32_epi32(reinterpret_cast<__m256i>(x.v), at)));
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
  if constexpr (N == 8) {
    lanes<T, 8> all = op(x, permuted_by_xor(x, 4));
    all = op(all, permuted_by_xor(all, 2));
    return first_lane(op(all, permuted_by_xor(all, 1)));
  } else if constexpr (reduced<T>) {
    return tree_reduce(op(lanes<T, N / 2>(x.w.lo), lanes<T, N / 2>(x.w.hi)), op);
  } else {
    return tree_reduce(op(x.lo, x.hi), op);
  }
}

// Lane ids

/// first, first + 1, … in lanes 0, 1, …; lanes from `live` on repeat the last live one.
template <int N>
[[gnu::always_inline]] inline auto ramp(int first, int live = N) {
  if constexpr (N == 1) {
    return first;
  } else if constexpr (N == 8) {
    const native<std::int32_t> lane = {0, 1, 2, 3, 4, 5, 6, 7};
    const native<std::int32_t> last = native<std::int32_t>{} + (live - 1);
    return lanes<std::int32_t, 8>((lane < last ? lane : last) + first);
  } else {
    return lanes<std::int32_t, N>(ramp<N / 2>(first, live), ramp<N / 2>(first + N / 2, live - N / 2));
  }
}

}  // namespace spmd
