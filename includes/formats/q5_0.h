#pragma once
// Five bits, symmetric about a zero of code 16.

#include "formats/five_bits.h"

namespace tolvane {

/// (c - 16) * d, with d rounded to T first; the product is in float, but for double.
struct q5_0 : five_bit_records<q5_0> {
  static constexpr int qtype = 6;
  static constexpr const char* name = "q5_0";

  static constexpr int offset = -16;
  template <class T, int N>
  static spmd::varying_t<T, N> element(const spmd::varying_t<float, N>& value, const std::uint8_t* record) {
    using wide = spmd::wide<T>;
    const auto d = spmd::convert<wide>(spmd::convert<T>(scale(record)));
    return spmd::convert<T>(spmd::convert<wide>(value) * d);
  }
};

}  // namespace tolvane
