#pragma once
// How the elements of a packed block become numbers. One small type per format, for the matrix-vector
// skeleton:
//   tile            elements that one work-item takes from a block in a step
//   run_start(t, r) column in the row of the tile's r-th run of eight neighbouring elements
//   order(k)        place in the runs of the k-th element in the order of summation
//   load(...)       the packed bytes of one tile per lane
//   value<T>(...)   the k-th element before the scale, as T
// Elements run in little-endian order of bytes; an element's position in its block is told in
// docs/formats.md.

#include <cstdint>

#include "sycl/spmd.hpp"

namespace tolvane {

/// Four-bit integers, c - 8, with a half scale for 64 elements. Byte j of a block holds element j in its low
/// nibble and element j + 32 in its high one, so a tile's two runs lie 32 columns apart and are summed in
/// turn.
struct q4_0 {
  static constexpr int block = 64;
  static constexpr int value_bytes = 32;
  using scale_type = sycl::half;

  static constexpr int tile = 16;
  static constexpr int tiles_per_block = block / tile;
  static constexpr int run_start(int t, int run) { return t / 4 * 64 + t % 4 * 8 + run * 32; }
  static constexpr int order(int k) { return k % 2 * 8 + k / 2; }

  template <int N, class Live>
  static spmd::tile8<N> load(const std::uint8_t* tiles, Live live) {
    return spmd::load_tile8<N>(tiles, live);
  }

  template <class T, int N, int K>
  static spmd::varying_t<T, N> value(const spmd::tile8<N>& packed, std::integral_constant<int, K>) {
    return spmd::convert_exact<T>(spmd::field_value<4, K * 4 % 32, -8>(packed.word[K / 8]));
  }
};

/// Eight-bit floats, the upper byte of a half with the lower one 0, with a float scale for 64 elements.
/// Exponent 31 is infinity or NaN.
struct fp8_e5m2_fused {
  static constexpr int block = 64;
  static constexpr int value_bytes = 64;
  using scale_type = float;

  static constexpr int tile = 8;
  static constexpr int tiles_per_block = block / tile;
  static constexpr int run_start(int t, int) { return t * 8; }
  static constexpr int order(int k) { return k; }

  template <int N, class Live>
  static spmd::tile8<N> load(const std::uint8_t* tiles, Live live) {
    return spmd::load_tile8<N>(tiles, live);
  }

  template <class T, int N, int K>
  static spmd::varying_t<T, N> value(const spmd::tile8<N>& packed, std::integral_constant<int, K>) {
    return spmd::convert_exact<T>(spmd::half_from_upper_byte<K % 4, 0>(packed.word[K / 4]));
  }
};

}  // namespace tolvane
