#pragma once

#include <immintrin.h>

#include <limits>

/// Eight floats or integers in an AVX2 register, as g++'s vector types: arithmetic and comparisons are
/// operators on them, `mask ? a : b` chooses by lane, and a scalar operand is broadcast.
namespace quarn {

constexpr int lanes = 8;
typedef float Floats __attribute__((vector_size(32)));
typedef int Ints __attribute__((vector_size(32)));

constexpr float half_max = 65504;
constexpr float infinity = std::numeric_limits<float>::infinity();

inline Floats all(float x) {
  return Floats{} + x;
}
inline Floats load(const float* from) {
  return reinterpret_cast<Floats>(_mm256_loadu_ps(from));
}
inline void store(float* to, Floats x) {
  _mm256_storeu_ps(to, reinterpret_cast<__m256>(x));
}

/// The smaller one; y where one of them is NaN.
inline Floats min(Floats x, Floats y) {
  return reinterpret_cast<Floats>(_mm256_min_ps(reinterpret_cast<__m256>(x), reinterpret_cast<__m256>(y)));
}
/// The larger one; y where one of them is NaN.
inline Floats max(Floats x, Floats y) {
  return reinterpret_cast<Floats>(_mm256_max_ps(reinterpret_cast<__m256>(x), reinterpret_cast<__m256>(y)));
}
inline Floats clamp(Floats x, float low, float high) {
  return min(max(x, all(low)), all(high));
}

/// x * y + z, rounded once.
inline Floats fused(Floats x, Floats y, Floats z) {
  return reinterpret_cast<Floats>(
      _mm256_fmadd_ps(reinterpret_cast<__m256>(x), reinterpret_cast<__m256>(y), reinterpret_cast<__m256>(z)));
}

/// The nearest whole number, the even one of two.
inline Floats round(Floats x) {
  constexpr int nearest = _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC;
  return reinterpret_cast<Floats>(_mm256_round_ps(reinterpret_cast<__m256>(x), nearest));
}

inline Ints bits(Floats x) {
  return reinterpret_cast<Ints>(x);
}
inline Floats from_bits(Ints x) {
  return reinterpret_cast<Floats>(x);
}
inline Floats abs(Floats x) {
  return from_bits(bits(x) & 0x7FFFFFFF);
}

/// Whole numbers of the range of an int.
inline Ints to_ints(Floats x) {
  return reinterpret_cast<Ints>(_mm256_cvtps_epi32(reinterpret_cast<__m256>(x)));
}
inline Floats to_floats(Ints x) {
  return reinterpret_cast<Floats>(_mm256_cvtepi32_ps(reinterpret_cast<__m256i>(x)));
}

/// table[index], for eight floats and indices 0 to 7.
inline Floats pick(Floats table, Ints index) {
  return reinterpret_cast<Floats>(
      _mm256_permutevar8x32_ps(reinterpret_cast<__m256>(table), reinterpret_cast<__m256i>(index)));
}

/// x / divisor, and 0 where the divisor is 0.
inline Floats quotient(Floats x, Floats divisor) {
  return divisor == 0 ? divisor : x / divisor;
}

/// The nearest finite half, kept in float.
inline Floats as_half(Floats x) {
  const Floats bounded = clamp(x, -half_max, half_max);
  const __m128i half = _mm256_cvtps_ph(reinterpret_cast<__m256>(bounded), _MM_FROUND_TO_NEAREST_INT);
  return reinterpret_cast<Floats>(_mm256_cvtph_ps(half));
}

/// The nearest finite float.
inline Floats as_float(Floats x) {
  constexpr float largest = std::numeric_limits<float>::max();
  return clamp(x, -largest, largest);
}

/// The bits of the nearest half.
inline unsigned short half_bits(float x) {
  return _cvtss_sh(x, _MM_FROUND_TO_NEAREST_INT);
}

/// The nearest finite half of one number, kept in float.
inline float nearest_half(float x) {
  return as_half(all(x))[0];
}

/// The sum of the eight lanes.
inline float sum_of(Floats x) {
  float sum = 0;
  for (int lane = 0; lane < lanes; ++lane) sum += x[lane];
  return sum;
}

inline float smallest_of(Floats x) {
  float smallest = x[0];
  for (int lane = 1; lane < lanes; ++lane) smallest = x[lane] < smallest ? x[lane] : smallest;
  return smallest;
}

inline float largest_of(Floats x) {
  return -smallest_of(-x);
}

}  // namespace quarn
