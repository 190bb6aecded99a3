#pragma once
// Two elements a byte, the layout of the four-bit formats; and what a layout says to the skeletons:
//   tile              elements that one work-item takes from a block in a step
//   run_start(t, r)   column in the row of the tile's r-th run of eight neighbouring elements
//   order(k)          place in the runs of the k-th element in the order of summation
//   load(row, t, l)   the packed codes of tiles t, t + 1, … per lane
//   element<F, T>(k)  the k-th element of a tile in that order
// A format adds value<T, Bit>(word), what the code at bit Bit of each word stands for before the scale, as T.

#include <cstdint>

#include "formats/format.h"
#include "spmd/spmd.hpp"

namespace tolvane {

/// The value bytes of a block.
struct block_q4_0_qs {
  std::uint8_t qs[32];
};

/// Two elements a byte: byte j holds element j in the nibble at bit `First` and element j + 32 in the other
/// one. A tile's two runs lie 32 columns apart and are summed in turn.
template <int First>
struct nibble_layout : zoned_format {
  static constexpr int block = 64;
  static constexpr int value_bytes = sizeof(block_q4_0_qs);
  static constexpr int first_bit = First;

  static constexpr int SUB_BLK_H = 16;
  static constexpr int tile = SUB_BLK_H;
  static constexpr int tiles_per_block = block / tile;
  static constexpr int run_start(int t, int run) { return t / 4 * 64 + t % 4 * 8 + run * 32; }
  static constexpr int order(int k) { return k % 2 * 8 + k / 2; }

  template <int N, class Live>
  static spmd::tile8<N> load(const std::uint8_t* row, int first, Live live) {
    return spmd::load_tile8<N>(row + static_cast<std::int64_t>(first) * 8, live);
  }
  template <class Format, class T, int N, int K>
  static spmd::varying_t<T, N> element(const spmd::tile8<N>& packed, std::integral_constant<int, K>) {
    constexpr int bit = K / 2 % 4 * 8 + (K % 2 == 0 ? First : 4 - First);
    return Format::template value<T, bit>(packed.word[K / 8]);
  }
};

}  // namespace tolvane
