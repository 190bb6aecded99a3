#pragma once
// Rounding to 16-bit floats worked out on doubles, independent of the code under test.

#include <cmath>
#include <cstdint>
#include <limits>

namespace reference {

/// `x` rounded to the nearest number with `precision` significant bits, ties to even, no unit below
/// 2^min_exponent; infinity from 2^max_exponent on.
inline double nearest(double x, int precision, int min_exponent, int max_exponent) {
  if (x == 0 || !std::isfinite(x)) return x;
  int exponent = 0;
  std::frexp(x, &exponent);
  const double unit = std::ldexp(1.0, std::max(exponent - precision, min_exponent));
  const double rounded = std::nearbyint(x / unit) * unit;
  if (std::abs(rounded) >= std::ldexp(1.0, max_exponent)) {
    return std::copysign(std::numeric_limits<double>::infinity(), x);
  }
  return rounded == 0 ? std::copysign(0.0, x) : rounded;
}

inline double nearest_half(double x) {
  return nearest(x, 11, -24, 16);
}
inline double nearest_bfloat16(double x) {
  return nearest(x, 8, -133, 128);
}

/// The value of 16 bits with so many exponent bits: NaN and infinity where the exponent is all ones.
inline double value_of(std::uint16_t bits, int exponent_bits) {
  const int fraction_bits = 15 - exponent_bits;
  const int bias = (1 << (exponent_bits - 1)) - 1;
  const int exponent = bits >> fraction_bits & ((1 << exponent_bits) - 1);
  const int fraction = bits & ((1 << fraction_bits) - 1);
  double value = 0;
  if (exponent == (1 << exponent_bits) - 1) {
    value = fraction ? std::numeric_limits<double>::quiet_NaN() : std::numeric_limits<double>::infinity();
  } else if (exponent == 0) {
    value = std::ldexp(fraction, 1 - bias - fraction_bits);
  } else {
    value = std::ldexp((1 << fraction_bits) + fraction, exponent - bias - fraction_bits);
  }
  return bits & 0x8000 ? -value : value;
}

inline double half_value(std::uint16_t bits) {
  return value_of(bits, 5);
}
inline double bfloat16_value(std::uint16_t bits) {
  return value_of(bits, 8);
}

inline bool same(double a, double b) {
  return (std::isnan(a) && std::isnan(b)) || (a == b && std::signbit(a) == std::signbit(b));
}

}  // namespace reference
