#pragma once
// Five bits with a scale and a minimum a record.

#include "formats/five_bits.h"

namespace tolvane {

/// c * d + m, each step in T: half and bfloat16 round the product, float and double may contract.
struct q5_1 : five_bit_records<q5_1> {
  static constexpr int qtype = 7;
  static constexpr const char* name = "q5_1";
  static constexpr bool plain_expansion = true;

  static constexpr int offset = 0;
  template <class T, int N>
  static spmd::varying_t<T, N> element(const spmd::varying_t<float, N>& value, const std::uint8_t* record) {
    const spmd::varying_t<T, N> d = spmd::convert<T>(scale(record)), m = spmd::convert<T>(minimum(record));
    const auto code = spmd::convert_exact<T>(value);
    if constexpr (spmd::reduced<T>) return d * code + m;
    return spmd::mad(d, code, m);
  }
};

}  // namespace tolvane
