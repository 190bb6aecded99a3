#pragma once
// The 16-bit element types as they stand in memory, with arithmetic that rounds after every operation. Both
// compute in float: for +, -, *, / of two halves or bfloat16s the float result rounded once more is the
// correctly rounded one (24 >= 2 * 11 + 2 bits).

#include <bit>
#include <cstdint>

namespace sycl {

namespace host {

/// IEEE binary16 from float, to nearest even. NaNs become quiet. One instruction where the CPU has F16C.
inline std::uint16_t half_bits(float value) {
  return std::bit_cast<std::uint16_t>(static_cast<_Float16>(value));
}

inline float half_value(std::uint16_t bits) {
  return static_cast<float>(std::bit_cast<_Float16>(bits));
}

/// The upper 16 bits of the float after adding 0x7FFF plus their lowest bit: nearest even, with no case for
/// NaN.
inline std::uint16_t bfloat16_bits(float value) {
  const auto bits = std::bit_cast<std::uint32_t>(value);
  return static_cast<std::uint16_t>((bits + 0x7FFF + (bits >> 16 & 1)) >> 16);
}

inline float bfloat16_value(std::uint16_t bits) {
  return std::bit_cast<float>(static_cast<std::uint32_t>(bits) << 16);
}

/// A 16-bit floating-point type that converts by FromFloat and ToFloat.
template <auto FromFloat, auto ToFloat>
class reduced_float {
 public:
  reduced_float() = default;
  reduced_float(float value) : bits_(FromFloat(value)) {}  // NOLINT: implicit, as sycl::half is
  static reduced_float from_bits(std::uint16_t bits) {
    reduced_float result;
    result.bits_ = bits;
    return result;
  }
  std::uint16_t bits() const { return bits_; }
  operator float() const { return ToFloat(bits_); }  // NOLINT: implicit, as sycl::half is

  friend reduced_float operator+(reduced_float a, reduced_float b) { return {float(a) + float(b)}; }
  friend reduced_float operator-(reduced_float a, reduced_float b) { return {float(a) - float(b)}; }
  friend reduced_float operator*(reduced_float a, reduced_float b) { return {float(a) * float(b)}; }
  friend reduced_float operator/(reduced_float a, reduced_float b) { return {float(a) / float(b)}; }
  friend reduced_float operator-(reduced_float a) { return from_bits(a.bits_ ^ 0x8000); }
  friend bool operator==(reduced_float a, reduced_float b) { return float(a) == float(b); }
  friend bool operator<(reduced_float a, reduced_float b) { return float(a) < float(b); }
  friend bool operator>(reduced_float a, reduced_float b) { return float(a) > float(b); }
  friend bool operator<=(reduced_float a, reduced_float b) { return float(a) <= float(b); }
  friend bool operator>=(reduced_float a, reduced_float b) { return float(a) >= float(b); }

 private:
  std::uint16_t bits_;
};

}  // namespace host

using half = host::reduced_float<host::half_bits, host::half_value>;

namespace ext::kelvor {
using bfloat16 = host::reduced_float<host::bfloat16_bits, host::bfloat16_value>;
}

}  // namespace sycl
