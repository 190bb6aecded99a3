#pragma once
// Signed bytes.

#include "formats/bytes.h"
#include "formats/scales.h"

namespace tolvane {

/// A signed byte.
struct q8_0 : byte_layout, one_scale<float> {
  static constexpr int qtype = 8;
  static constexpr const char* name = "q8_0";
  static constexpr float largest_value = 128;
  static constexpr bool whole_values = true;
  static constexpr bool matrix_engine = true;
  static constexpr bool dequant = true;

  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::field_value<8, Bit, -128>(word ^ 0x80808080u));
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<q8_0, T, Bit>(word, scale);
  }
};

}  // namespace tolvane
