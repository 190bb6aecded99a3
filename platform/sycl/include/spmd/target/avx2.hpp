#pragma once
// Registers of 32 bytes: CPUs with AVX2, FMA, F16C and BMI2.

#include "spmd/target/registers_256.hpp"

namespace spmd::target {

inline constexpr const char* name = "avx2";
inline constexpr int register_bytes = 32;
inline constexpr int gang_lanes = 32;

/// Whether spmd::rounded_digits takes less than T's own conversions.
inline constexpr bool rounds_in_floats = true;

/// Whether larger_magnitude is one operation.
inline constexpr bool compares_magnitudes = false;

/// Whether lookup16 is one operation for sixteen codes.
inline constexpr bool looks_up_sixteen = false;

/// Whether fixed_point16 takes less than lookup16 where four codes of a word are looked up.
inline constexpr bool looks_up_fixed_point = true;

/// (low[c] + 256 * high[c]) / 2^14 - 2 for the four-bit code c from Bit on of each word, exactly; the tables
/// stand in both halves of their registers. 2 or 3 operations, and 7 for all codes a multiple of 8 bits
/// apart.
template <int Bit>
[[gnu::always_inline]] inline vec<float, 8> fixed_point16(vec<std::uint8_t, 32> low,
                                                          vec<std::uint8_t, 32> high,
                                                          vec<std::uint32_t, 8> words) {
  const auto codes = reinterpret_cast<vec<std::int8_t, 32>>(words >> Bit % 8 & 0x0F0F0F0F);
  const auto lower = reinterpret_cast<__m256i>(shuffled_bytes(low, codes));
  const auto upper = reinterpret_cast<__m256i>(shuffled_bytes(high, codes));
  // The entries of bytes 0 and 1, or of 2 and 3, of each word as its halves.
  const auto first = reinterpret_cast<__m256>(_mm256_unpacklo_epi8(lower, upper));
  const auto second = reinterpret_cast<__m256>(_mm256_unpackhi_epi8(lower, upper));
  const auto pair = reinterpret_cast<__m256i>(_mm256_shuffle_ps(first, second, Bit < 16 ? 0x88 : 0xDD));
  // An entry as the mantissa of a float whose unit is 2^-14, from which the rest of that float is taken away.
  const auto exponent = reinterpret_cast<__m256i>(repeated<8>(std::bit_cast<std::uint32_t>(512.0f)));
  const __m256i biased = Bit / 8 % 2 == 0 ? _mm256_blend_epi16(pair, exponent, 0xAA)
                                          : _mm256_or_si256(_mm256_srli_epi32(pair, 16), exponent);
  return reinterpret_cast<vec<float, 8>>(biased) - 514.0f;
}

/// sum + a[4l] * b[4l] + … + a[4l + 3] * b[4l + 3], with a unsigned and b signed. No two neighbouring
/// products may add up to 2^15 or more.
[[gnu::always_inline]] inline vec<std::int32_t, 8> dot_bytes(vec<std::int32_t, 8> sum,
                                                             vec<std::uint8_t, 32> a,
                                                             vec<std::int8_t, 32> b) {
  return sum + weighted_dot_bytes(a, b, repeated<16>(std::int16_t{1}));
}

}  // namespace spmd::target
