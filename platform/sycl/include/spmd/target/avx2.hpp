#pragma once
// Registers of 32 bytes: CPUs with AVX2, FMA, F16C and BMI2.

#include "spmd/target/registers_256.hpp"

namespace spmd::target {

inline constexpr const char* name = "avx2";
inline constexpr int register_bytes = 32;
inline constexpr int gang_lanes = 32;

}  // namespace spmd::target
