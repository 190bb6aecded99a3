#pragma once

#include <cstdint>

namespace tolvane {

/// Division of 32-bit integers by a divisor that stays the same, as a multiplication: exact for every divisor
/// but 0 and every dividend. Torbjörn Granlund and Peter Montgomery, "Division by invariant integers using
/// multiplication", 1994, figure 4.1.
struct IntDivider {
  std::uint32_t divisor = 1;
  std::uint32_t m1 = 1;
  std::uint32_t shift = 0;

  IntDivider() = default;
  explicit IntDivider(std::uint32_t d) : divisor(d) {
    while (shift < 32 && (std::uint64_t{1} << shift) < d) ++shift;
    m1 = static_cast<std::uint32_t>((((std::uint64_t{1} << shift) - d) << 32) / d + 1);
  }

  std::uint32_t quotient(std::uint32_t n) const {
    const std::uint64_t t = (static_cast<std::uint64_t>(m1) * n) >> 32;
    return static_cast<std::uint32_t>((t + n) >> shift);
  }
};

}  // namespace tolvane
