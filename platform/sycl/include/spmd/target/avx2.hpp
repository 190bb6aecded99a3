#pragma once
// Registers of 32 bytes: CPUs with AVX2, FMA, F16C and BMI2.

#include "spmd/target/registers_256.hpp"

namespace spmd::target {

inline constexpr const char* name = "avx2";
inline constexpr int register_bytes = 32;
inline constexpr int gang_lanes = 32;

/// sum + a[4l] * b[4l] + … + a[4l + 3] * b[4l + 3], with a unsigned and b signed. No two neighbouring
/// products may add up to 2^15 or more.
[[gnu::always_inline]] inline vec<std::int32_t, 8> dot_bytes(vec<std::int32_t, 8> sum,
                                                             vec<std::uint8_t, 32> a,
                                                             vec<std::int8_t, 32> b) {
  return sum + weighted_dot_bytes(a, b, repeated<16>(std::int16_t{1}));
}

}  // namespace spmd::target
