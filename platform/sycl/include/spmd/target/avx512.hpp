#pragma once
// Registers of 64 bytes: CPUs with AVX-512 F, BW, DQ, VL and VNNI. Parts of registers use the instructions of
// the narrower target.

#include "spmd/target/registers_256.hpp"
#include "spmd/target/without_detours.hpp"

namespace spmd::target {

inline constexpr const char* name = "avx512";
inline constexpr int register_bytes = 64;
inline constexpr int gang_lanes = 32;

/// Whether spmd::rounded_digits takes less than T's own conversions.
inline constexpr bool rounds_in_floats = true;

/// Whether larger_magnitude is one operation.
inline constexpr bool compares_magnitudes = true;

/// Whether lookup16 is one operation for sixteen codes.
inline constexpr bool looks_up_sixteen = true;

[[gnu::always_inline]] inline vec<float, 16> from_halves(vec<std::uint16_t, 16> bits) {
  return _mm512_cvtph_ps(reinterpret_cast<__m256i>(bits));
}
[[gnu::always_inline]] inline vec<std::uint16_t, 16> to_halves(vec<float, 16> x) {
  return reinterpret_cast<vec<std::uint16_t, 16>>(
      _mm512_cvtps_ph(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
}

[[gnu::always_inline]] inline vec<std::uint32_t, 16> widened(vec<std::uint16_t, 16> x) {
  return reinterpret_cast<vec<std::uint32_t, 16>>(_mm512_cvtepu16_epi32(reinterpret_cast<__m256i>(x)));
}
[[gnu::always_inline]] inline vec<std::uint32_t, 16> widened(vec<std::uint8_t, 16> x) {
  return reinterpret_cast<vec<std::uint32_t, 16>>(_mm512_cvtepu8_epi32(reinterpret_cast<__m128i>(x)));
}
[[gnu::always_inline]] inline vec<std::uint16_t, 16> narrowed(vec<std::uint32_t, 16> x) {
  return reinterpret_cast<vec<std::uint16_t, 16>>(_mm512_cvtepi32_epi16(reinterpret_cast<__m512i>(x)));
}

[[gnu::always_inline]] inline vec<float, 16> fma(vec<float, 16> x, vec<float, 16> y, vec<float, 16> z) {
  return _mm512_fmadd_ps(x, y, z);
}
[[gnu::always_inline]] inline vec<double, 8> fma(vec<double, 8> x, vec<double, 8> y, vec<double, 8> z) {
  return _mm512_fmadd_pd(x, y, z);
}
[[gnu::always_inline]] inline vec<float, 16> sqrt(vec<float, 16> x) {
  return _mm512_sqrt_ps(x);
}
[[gnu::always_inline]] inline vec<double, 8> sqrt(vec<double, 8> x) {
  return _mm512_sqrt_pd(x);
}

[[gnu::always_inline]] inline vec<std::uint32_t, 16> even_words(vec<std::uint32_t, 16> a,
                                                                vec<std::uint32_t, 16> b) {
  return shuffled<16>(a, b, [](int i) { return 2 * i; });
}
[[gnu::always_inline]] inline vec<std::uint32_t, 16> odd_words(vec<std::uint32_t, 16> a,
                                                               vec<std::uint32_t, 16> b) {
  return shuffled<16>(a, b, [](int i) { return 2 * i + 1; });
}

[[gnu::always_inline]] inline vec<float, 16> larger_magnitude(vec<float, 16> x, vec<float, 16> least) {
  return _mm512_range_ps(x, least, 0b0011);  // the larger magnitude, the first one's sign
}

/// One look-up in the table twice over: the index's higher bits may be anything.
[[gnu::always_inline]] inline vec<float, 16> lookup8(vec<float, 8> table, vec<std::uint32_t, 16> index) {
  const __m512 twice = shuffled<16>(table, [](int i) { return i % 8; });
  return _mm512_permutexvar_ps(reinterpret_cast<__m512i>(index), twice);
}
[[gnu::always_inline]] inline vec<float, 16> lookup16(vec<float, 8> low, vec<float, 8> high,
                                                      vec<std::uint32_t, 16> index) {
  const __m512 table = shuffled<16>(low, high, [](int i) { return i; });
  return _mm512_permutexvar_ps(reinterpret_cast<__m512i>(index), table);
}

[[gnu::always_inline]] inline vec<std::uint8_t, 64> shuffled_bytes(vec<std::uint8_t, 64> x,
                                                                   vec<std::int8_t, 64> order) {
  return reinterpret_cast<vec<std::uint8_t, 64>>(
      _mm512_shuffle_epi8(reinterpret_cast<__m512i>(x), reinterpret_cast<__m512i>(order)));
}

[[gnu::always_inline]] inline vec<std::int32_t, 8> dot_bytes(vec<std::int32_t, 8> sum,
                                                             vec<std::uint8_t, 32> a,
                                                             vec<std::int8_t, 32> b) {
  return reinterpret_cast<vec<std::int32_t, 8>>(_mm256_dpbusd_epi32(
      reinterpret_cast<__m256i>(sum), reinterpret_cast<__m256i>(a), reinterpret_cast<__m256i>(b)));
}
[[gnu::always_inline]] inline vec<std::int32_t, 16> dot_bytes(vec<std::int32_t, 16> sum,
                                                              vec<std::uint8_t, 64> a,
                                                              vec<std::int8_t, 64> b) {
  return reinterpret_cast<vec<std::int32_t, 16>>(_mm512_dpbusd_epi32(
      reinterpret_cast<__m512i>(sum), reinterpret_cast<__m512i>(a), reinterpret_cast<__m512i>(b)));
}

[[gnu::always_inline]] inline vec<std::int32_t, 16> weighted_dot_bytes(vec<std::uint8_t, 64> a,
                                                                       vec<std::int8_t, 64> b,
                                                                       vec<std::int16_t, 32> w) {
  const __m512i pairs = _mm512_maddubs_epi16(reinterpret_cast<__m512i>(a), reinterpret_cast<__m512i>(b));
  return reinterpret_cast<vec<std::int32_t, 16>>(_mm512_madd_epi16(pairs, reinterpret_cast<__m512i>(w)));
}

[[gnu::always_inline]] inline void store(void* p, vec<std::uint16_t, 16> x) {
  _mm256_storeu_si256(static_cast<__m256i*>(p), reinterpret_cast<__m256i>(x));
}
template <class V>
requires(sizeof(V) == 64) [[gnu::always_inline]] inline void stream(void* p, V x) {
  _mm512_stream_si512(static_cast<__m512i*>(p), reinterpret_cast<__m512i>(x));
}

}  // namespace spmd::target
