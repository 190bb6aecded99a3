#pragma once
// For targets that do without the detour which avx2.hpp takes around look-ups.

#include "spmd/vec.hpp"

namespace spmd::target {

inline constexpr bool looks_up_fixed_point = false;
template <int Bit, class V>
vec<float, 8> fixed_point16(vec<std::uint8_t, 32>, vec<std::uint8_t, 32>, V) = delete;

}  // namespace spmd::target
