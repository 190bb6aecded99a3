#pragma once
// One element a byte, the layout of the eight-bit formats.

#include <cstdint>

#include "formats/format.h"
#include "spmd/spmd.hpp"

namespace tolvane {

/// The value bytes of a block.
struct block_fp8_qs {
  std::uint8_t qs[64];
};

/// One element a byte, in order.
struct byte_layout : zoned_format {
  static constexpr int block = 64;
  static constexpr int value_bytes = sizeof(block_fp8_qs);

  static constexpr int SUB_BLK_H = 8;
  static constexpr int tile = SUB_BLK_H;
  static constexpr int tiles_per_block = block / tile;
  static constexpr int run_start(int t, int) { return t * 8; }
  static constexpr int order(int k) { return k; }

  template <int N, class Live>
  static spmd::tile8<N> load(const std::uint8_t* row, int first, Live live) {
    return spmd::load_tile8<N>(row + static_cast<std::int64_t>(first) * 8, live);
  }
  template <class Format, class T, int N, int K>
  static spmd::varying_t<T, N> element(const spmd::tile8<N>& packed, std::integral_constant<int, K>) {
    return Format::template value<T, K % 4 * 8>(packed.word[K / 4]);
  }
};

}  // namespace tolvane
