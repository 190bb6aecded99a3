#pragma once
// What the compiler's vectors of 32 bytes lack, or do in more instructions than needed: AVX2 with FMA and
// F16C.

#include <immintrin.h>

#include "spmd/vec.hpp"

namespace spmd::target {

/// Halves as floats, and floats rounded to halves. 1 conversion.
[[gnu::always_inline]] inline vec<float, 8> from_halves(vec<std::uint16_t, 8> bits) {
  return _mm256_cvtph_ps(reinterpret_cast<__m128i>(bits));
}
[[gnu::always_inline]] inline vec<std::uint16_t, 8> to_halves(vec<float, 8> x) {
  return reinterpret_cast<vec<std::uint16_t, 8>>(
      _mm256_cvtps_ph(x, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC));
}

/// Bytes or 16-bit words as 32-bit words.
[[gnu::always_inline]] inline vec<std::uint32_t, 8> widened(vec<std::uint16_t, 8> x) {
  return reinterpret_cast<vec<std::uint32_t, 8>>(_mm256_cvtepu16_epi32(reinterpret_cast<__m128i>(x)));
}
[[gnu::always_inline]] inline vec<std::uint32_t, 8> widened(vec<std::uint8_t, 8> x) {
  return reinterpret_cast<vec<std::uint32_t, 8>>(
      _mm256_cvtepu8_epi32(_mm_cvtsi64_si128(std::bit_cast<long long>(x))));
}

/// 32-bit words below 2^16 as 16-bit words. 2 shuffles.
[[gnu::always_inline]] inline vec<std::uint16_t, 8> narrowed(vec<std::uint32_t, 8> x) {
  const auto words = reinterpret_cast<__m256i>(x);
  const __m256i packed = _mm256_permute4x64_epi64(_mm256_packus_epi32(words, words), 0xD8);
  return reinterpret_cast<vec<std::uint16_t, 8>>(_mm256_castsi256_si128(packed));
}
[[gnu::always_inline]] inline vec<std::uint16_t, 16> narrowed(vec<std::uint32_t, 8> low,
                                                              vec<std::uint32_t, 8> high) {
  const __m256i words = _mm256_packus_epi32(reinterpret_cast<__m256i>(low), reinterpret_cast<__m256i>(high));
  return reinterpret_cast<vec<std::uint16_t, 16>>(_mm256_permute4x64_epi64(words, 0xD8));
}

[[gnu::always_inline]] inline vec<float, 8> fma(vec<float, 8> x, vec<float, 8> y, vec<float, 8> z) {
  return _mm256_fmadd_ps(x, y, z);
}
[[gnu::always_inline]] inline vec<double, 4> fma(vec<double, 4> x, vec<double, 4> y, vec<double, 4> z) {
  return _mm256_fmadd_pd(x, y, z);
}
[[gnu::always_inline]] inline vec<float, 8> sqrt(vec<float, 8> x) {
  return _mm256_sqrt_ps(x);
}
[[gnu::always_inline]] inline vec<double, 4> sqrt(vec<double, 4> x) {
  return _mm256_sqrt_pd(x);
}

/// x, or where its magnitude is below `least` that with x's sign. 3 operations.
[[gnu::always_inline]] inline vec<float, 8> larger_magnitude(vec<float, 8> x, vec<float, 8> least) {
  const __m256 sign = _mm256_and_ps(x, _mm256_set1_ps(-0.0f));
  return _mm256_or_ps(_mm256_max_ps(_mm256_andnot_ps(_mm256_set1_ps(-0.0f), x), least), sign);
}

/// Words 0, 2, 4 … of `a` and `b` behind it, and words 1, 3, 5 …. 2 shuffles.
[[gnu::always_inline]] inline vec<std::uint32_t, 8> ordered_words(__m256 words) {
  return reinterpret_cast<vec<std::uint32_t, 8>>(_mm256_permute4x64_epi64(_mm256_castps_si256(words), 0xD8));
}
[[gnu::always_inline]] inline vec<std::uint32_t, 8> even_words(vec<std::uint32_t, 8> a,
                                                               vec<std::uint32_t, 8> b) {
  return ordered_words(_mm256_shuffle_ps(reinterpret_cast<__m256>(a), reinterpret_cast<__m256>(b), 0x88));
}
[[gnu::always_inline]] inline vec<std::uint32_t, 8> odd_words(vec<std::uint32_t, 8> a,
                                                              vec<std::uint32_t, 8> b) {
  return ordered_words(_mm256_shuffle_ps(reinterpret_cast<__m256>(a), reinterpret_cast<__m256>(b), 0xDD));
}

/// table[index], of which the three or four lowest bits count. 1 or 4 operations.
[[gnu::always_inline]] inline vec<float, 8> lookup8(vec<float, 8> table, vec<std::uint32_t, 8> index) {
  return _mm256_permutevar8x32_ps(table, reinterpret_cast<__m256i>(index));
}
[[gnu::always_inline]] inline vec<float, 8> lookup16(vec<float, 8> low, vec<float, 8> high,
                                                     vec<std::uint32_t, 8> index) {
  const auto at = reinterpret_cast<__m256i>(index);
  const auto upper = reinterpret_cast<__m256>(index << 28);  // the index's top bit as sign
  return _mm256_blendv_ps(_mm256_permutevar8x32_ps(low, at), _mm256_permutevar8x32_ps(high, at), upper);
}

/// Byte order[i] of the same 16 bytes in place i, 0 where order[i] is negative.
[[gnu::always_inline]] inline vec<std::uint8_t, 32> shuffled_bytes(vec<std::uint8_t, 32> x,
                                                                   vec<std::int8_t, 32> order) {
  return reinterpret_cast<vec<std::uint8_t, 32>>(
      _mm256_shuffle_epi8(reinterpret_cast<__m256i>(x), reinterpret_cast<__m256i>(order)));
}

/// (a[4l] * b[4l] + a[4l + 1] * b[4l + 1]) * w[2l] + (a[4l + 2] * b[4l + 2] + …) * w[2l + 1], with a unsigned
/// and b signed. No two neighbouring products may add up to 2^15 or more.
[[gnu::always_inline]] inline vec<std::int32_t, 8> weighted_dot_bytes(vec<std::uint8_t, 32> a,
                                                                      vec<std::int8_t, 32> b,
                                                                      vec<std::int16_t, 16> w) {
  const __m256i pairs = _mm256_maddubs_epi16(reinterpret_cast<__m256i>(a), reinterpret_cast<__m256i>(b));
  return reinterpret_cast<vec<std::int32_t, 8>>(_mm256_madd_epi16(pairs, reinterpret_cast<__m256i>(w)));
}

/// The first `count` 64-bit words at p, the others 0; nothing behind them is read.
[[gnu::always_inline]] inline vec<std::uint64_t, 4> load_first(const std::uint64_t* p, int count) {
  const vec<std::int64_t, 4> lane = {0, 1, 2, 3};
  return reinterpret_cast<vec<std::uint64_t, 4>>(
      _mm256_maskload_epi64(reinterpret_cast<const long long*>(p),
                            reinterpret_cast<__m256i>(lane < static_cast<std::int64_t>(count))));
}

/// Stores; `store` is never merged with the conversion before it, which would take twice as long, and
/// `stream` goes past the caches, to memory aligned to the register.
[[gnu::always_inline]] inline void store(void* p, vec<std::uint16_t, 8> x) {
  _mm_storeu_si128(static_cast<__m128i*>(p), reinterpret_cast<__m128i>(x));
}
template <class V>
requires(sizeof(V) == 16) [[gnu::always_inline]] inline void stream(void* p, V x) {
  _mm_stream_si128(static_cast<__m128i*>(p), reinterpret_cast<__m128i>(x));
}
template <class V>
requires(sizeof(V) == 32) [[gnu::always_inline]] inline void stream(void* p, V x) {
  _mm256_stream_si256(static_cast<__m256i*>(p), reinterpret_cast<__m256i>(x));
}

/// Asks for the cache line of p. Not by the compiler's builtin, since a function of only that counts as one
/// without effects, and calls of it vanish.
[[gnu::always_inline]] inline void prefetch_once(const std::uint8_t* p) {
  asm volatile("prefetchnta %0" : : "m"(*p));
}

}  // namespace spmd::target
