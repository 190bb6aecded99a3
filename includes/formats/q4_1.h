#pragma once
// Four bits with a scale and a minimum a block.

#include "formats/nibbles.h"
#include "formats/scales.h"

namespace tolvane {

/// c, with a minimum.
struct q4_1 : nibble_layout<0>, scale_and_minimum {
  static constexpr int qtype = 3;
  static constexpr const char* name = "q4_1";
  static constexpr float largest_value = 15;
  static constexpr bool whole_values = true;
  static constexpr int few_rows_on_summit = 20;
  static constexpr int few_rows = 20;

  template <class T, int Bit, class W>
  static auto value(const W& word) {
    return spmd::convert_exact<T>(spmd::field_value<4, Bit, 0>(word));
  }
  /// T(d) * T(v) + T(m), the product rounded before the addition.
  template <class T, int Bit, class W>
  static auto dequantized(const W& word, const std::uint8_t* scale) {
    using V = decltype(value<T, Bit>(word));
    const auto* pair = reinterpret_cast<const sycl::half*>(scale);
    const T d = spmd::convert<T>(spmd::load<1>(pair)), m = spmd::convert<T>(spmd::load<1>(pair + 1));
    return V(d) * value<T, Bit>(word) + V(m);
  }
};

}  // namespace tolvane
