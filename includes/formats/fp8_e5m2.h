#pragma once
// Eight-bit floats with five exponent bits, as the linear operators read them and as the fused ones do.

#include "formats/bytes.h"
#include "formats/scales.h"

namespace tolvane {

/// Eight-bit floats, the upper byte of a half with the lower one 0x80, without a scale.
struct fp8_e5m2 : byte_layout, no_scale {
  static constexpr int qtype = 19;
  static constexpr const char* name = "fp8_e5m2";
  static constexpr bool matrix_engine = true;
  static constexpr bool dequant = true;

  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::half_from_upper_byte<Bit / 8, 0x80>(word));
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t*) {
    return value<T, Bit>(word);
  }
};

/// The same with the lower byte 0 and a scale, as the fused operators read it. Exponent 31 is infinity or
/// NaN.
struct fp8_e5m2_fused : byte_layout, one_scale<float> {
  static constexpr int qtype = 19;
  static constexpr const char* name = "fp8_e5m2";

  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::half_from_upper_byte<Bit / 8, 0>(word));
  }
};

}  // namespace tolvane
