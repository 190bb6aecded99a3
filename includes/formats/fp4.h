#pragma once
// Four-bit floats.

#include <array>

#include "formats/nibbles.h"
#include "formats/scales.h"

namespace tolvane {

/// A sign and a three-bit magnitude.
struct fp4 : nibble_layout<0>, one_scale<sycl::half> {
  static constexpr int qtype = 16;
  static constexpr const char* name = "fp4";
  static constexpr float largest_value = 6;
  static constexpr bool dequant = true;

  static constexpr std::array<float, 8> magnitudes = {0.03125f, 0.5f, 1, 1.5f, 2, 3, 4, 6};
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::signed_table8<T, Bit>(magnitudes, word);
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<fp4, T, Bit>(word, scale);
  }
};

}  // namespace tolvane
