#pragma once

#include <cstdint>

namespace quarn {

/// Blocks of 256 elements in sub-blocks of 32: a step of four bits for each sub-block, and for each eight
/// elements an entry of a grid of magnitudes and their signs, of which an even number are negative: value =
/// sign * magnitude * (step + 1/2) * d / 4.
///
/// A record is d (half), then eight bytes per sub-block: four grid indices, and a word of four times seven
/// signs and the step.
struct iq2_xxs {
  static constexpr int elements = 256, bytes = 66;

  /// Writes the record of least squared error found for 256 weights. `importance` weighs the errors, by
  /// element, or is null.
  static void encode(const float* weights, const float* importance, std::uint8_t* record);
};

}  // namespace quarn
