#pragma once
// Four bits, symmetric about a zero of code 8.

#include "formats/nibbles.h"
#include "formats/scales.h"

namespace tolvane {

/// c - 8.
struct q4_0 : nibble_layout<0>, one_scale<sycl::half> {
  static constexpr int qtype = 2;
  static constexpr const char* name = "q4_0";
  static constexpr float largest_value = 8;
  static constexpr bool whole_values = true;
  static constexpr int few_rows = 20;
  static constexpr int rows_on_igx = 8;
  static constexpr bool sliced_expansion = true;
  static constexpr bool matrix_engine = true;
  static constexpr bool dequant = true;
  static constexpr bool plain_expansion_on_summit = true;

  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::field_value<4, Bit, -8>(word));
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<q4_0, T, Bit>(word, scale);
  }
};

}  // namespace tolvane
