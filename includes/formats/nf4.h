#pragma once
// Four bits that stand for tabled values.

#include <array>
#include <bit>

#include "formats/nibbles.h"
#include "formats/scales.h"

namespace tolvane {

/// Sixteen quantiles of a normal distribution.
struct nf4 : nibble_layout<4>, one_scale<sycl::half> {
  static constexpr int qtype = 10;
  static constexpr const char* name = "nf4";
  static constexpr float largest_value = 1;
  static constexpr int few_rows_on_summit = 14;
  static constexpr int few_rows = 14;
  static constexpr bool dequant = true;

  static constexpr std::array<float, 16> dequantNF4 = [] {
    constexpr std::array<std::uint32_t, 16> bits = {
        0xBF800000, 0xBF3239B1, 0xBF066B30, 0xBECA32A0, 0xBE91A24D, 0xBE3D353F, 0xBDBA7871, 0x00000000,
        0x3DA2FAFF, 0x3E24CAE3, 0x3E7C04DD, 0x3EAD033A, 0x3EE1A4B8, 0x3F1007AB, 0x3F3913B3, 0x3F800000};
    std::array<float, 16> values{};
    for (int c = 0; c < 16; ++c) values[c] = std::bit_cast<float>(bits[c]);
    return values;
  }();
  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::table16<dequantNF4, T, Bit>(word);
  }
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    return scaled_value<nf4, T, Bit>(word, scale);
  }
};

}  // namespace tolvane
