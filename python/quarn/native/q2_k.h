#pragma once

#include <cstdint>

namespace quarn {

/// Blocks of 256 elements with two-bit codes, in sub-blocks of 16 with a scale and a minimum of four bits
/// each: value = d * scale * code - dmin * minimum.
///
/// A record is 16 bytes of scales (minimum in the high nibble), 64 bytes of codes, d and dmin (halves).
struct q2_k {
  static constexpr int elements = 256, bytes = 84;

  /// Writes the record of least squared error found for 256 weights. `importance` weighs the errors, by
  /// element, or is null.
  static void encode(const float* weights, const float* importance, std::uint8_t* record);
};

}  // namespace quarn
