#pragma once
// The skeleton of every kernel that multiplies one activation row by packed weight rows. A work-group walks a
// few weight rows together: their tiles are dealt to its work-items in turn, each tile is dotted with the
// activations in T, its sum is scaled and added to the work-item's accumulator of that row.

#include <array>
#include <cstdint>

#include "sycl/spmd.hpp"

namespace tolvane {

/// The activation row, tile by tile, in the order in which a gang's lanes read it. All work-groups read the
/// same row, so it is widened and transposed once per submission.
template <class Format, class T>
class activation_tiles {
 public:
  static constexpr int lanes = HOST_SYCL_LANES;

  /// Lays out `state_size` activations, a whole number of blocks. The lanes after the last tile are zero.
  void prepare(sycl::host::arena& memory, const T* input, int state_size) {
    const int tiles = state_size / Format::tile;
    const int rounds = (tiles + lanes - 1) / lanes;
    auto* out =
        memory.template allocate<spmd::wide<T>>(static_cast<std::size_t>(rounds) * lanes * Format::tile);
    std::fill(out + static_cast<std::size_t>(rounds - 1) * lanes * Format::tile,
              out + static_cast<std::size_t>(rounds) * lanes * Format::tile, 0);
    for (int t = 0; t < tiles; ++t) {
      spmd::wide<T>* tile = out + t / lanes * (lanes * Format::tile) + t % lanes;
      for (int run = 0; run < Format::tile / 8; ++run) {
        const T* from = input + Format::run_start(t, run);
        for (int c = 0; c < 8; ++c) tile[(run * 8 + c) * lanes] = from[c];
      }
    }
    tiles_ = out;
  }

  /// Activation `place` of tile first + l in lane l.
  [[gnu::always_inline]] spmd::varying_t<T, lanes> element(int first, int place) const {
    const spmd::wide<T>* at = tiles_ + first * Format::tile + place * lanes;
    if constexpr (spmd::reduced<T> && lanes > 1) {
      return spmd::lanes<T, lanes>(spmd::load<lanes>(at));
    } else {
      return spmd::load<lanes>(at);
    }
  }

 private:
  const spmd::wide<T>* tiles_ = nullptr;
};

/// Where one weight row's packed values and scales begin.
struct packed_row {
  const std::uint8_t* values;
  const std::uint8_t* scales;
};

/// Row `row` of a zoned weight with `blocks_per_row` blocks in a row.
template <class Format>
[[gnu::always_inline]] inline packed_row zoned_row(const std::uint8_t* weight, std::int32_t scale_offset,
                                                   std::int64_t blocks_per_row, std::int64_t row) {
  return {weight + row * blocks_per_row * Format::value_bytes,
          weight + scale_offset +
              row * blocks_per_row * static_cast<std::int64_t>(sizeof(typename Format::scale_type))};
}

/// Step Walk over one weight row: returns the accumulators of the gang's work-items. Rows are walked one
/// after the other, so that a work-group reads its packed bytes as one run of memory: two rows in turn halve
/// the rate at which they come.
template <class Format, class T, class Item>
[[gnu::always_inline]] inline auto walk(const Item& item, const activation_tiles<Format, T>& input,
                                        int state_size, const packed_row& row) {
  constexpr int n = Item::lanes;
  constexpr int tile_bytes = Format::value_bytes / Format::tiles_per_block;
  using value = spmd::varying<T, Item>;
  using scale = typename Format::scale_type;
  value acc = T(0.0f);
  spmd::strided<2>(item, state_size / Format::tile, [&](const auto& first, auto live) [[gnu::always_inline]] {
    constexpr int rounds = std::tuple_size_v<std::remove_cvref_t<decltype(first)>>;
    // Load
    std::array<decltype(Format::template load<n>(row.values, live)), rounds> tiles;
    spmd::unrolled<rounds>([&](auto r) [[gnu::always_inline]] {
      tiles[r] =
          Format::template load<n>(row.values + static_cast<std::int64_t>(first[r]) * tile_bytes, live);
    });
    // Tile dot
    std::array<value, rounds> sum;
    spmd::unrolled<Format::tile>([&](auto k) [[gnu::always_inline]] {
      spmd::unrolled<rounds>([&](auto r) [[gnu::always_inline]] {
        const value x = input.element(first[r], Format::order(k));
        const value w = Format::template value<T, n>(tiles[r], k);
        if constexpr (k == 0) {
          sum[r] = x * w;
        } else {
          sum[r] = spmd::mad(x, w, sum[r]);
        }
      });
    });
    // Scale
    spmd::unrolled<rounds>([&](auto r) [[gnu::always_inline]] {
      const std::int64_t block = first[r] / Format::tiles_per_block;
      const auto d = spmd::load_repeated<n, Format::tiles_per_block, scale>(
          row.scales + block * static_cast<std::int64_t>(sizeof(scale)), live);
      acc = spmd::keep_unless(live, spmd::mad(sum[r], spmd::convert<T>(d), acc), acc);
    });
  });
  return acc;
}

}  // namespace tolvane
