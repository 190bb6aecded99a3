#pragma once
// Eight-bit floats with four exponent bits.

#include "formats/bytes.h"
#include "formats/scales.h"

namespace tolvane {

/// Eight-bit floats with four exponent bits of bias 7, all of them ordinary. Moved down by a bit they are
/// halves of bias 15, 2^8 times too small.
struct fp8_e4m3 : byte_layout, one_scale<float> {
  static constexpr int qtype = 15;
  static constexpr const char* name = "fp8_e4m3";
  static constexpr float largest_value = 480;
  static constexpr bool matrix_engine = true;
  static constexpr bool dequant = true;

  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::half_from_shifted_byte<Bit / 8>(word) * 256.0f);
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<fp8_e4m3, T, Bit>(word, scale);
  }
};

}  // namespace tolvane
