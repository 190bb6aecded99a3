#pragma once
// Eight-bit blocks of activations, which the formats of 256 elements multiply in integers. Never a weight.

#include <cstdint>

#include "spmd/spmd.hpp"

namespace tolvane {

/// 32 activations: the quantized values, the step `d` between them, and the sum `s` of what was quantized,
/// which nothing reads.
struct block_q8_1 {
  static constexpr int block = 32;
  sycl::half d, s;
  std::int8_t qs[block];
};
static_assert(sizeof(block_q8_1) == 36);

}  // namespace tolvane
