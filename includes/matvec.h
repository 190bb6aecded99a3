#pragma once
// The skeleton of every kernel that multiplies activation rows by packed weight rows, tile by tile. The tiles
// of a weight row are dealt to the work-items of a group in turn; each is dotted with the activations in T,
// its sum is scaled and added to the work-item's accumulator.

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

#include "spmd/spmd.hpp"
#include "sycl/launch.hpp"

namespace tolvane {

/// In which order a tile's activations are summed, for the formats with a minimum: as the products are, or
/// the two of a byte first.
enum class activation_sum { in_order, by_byte };

/// Activation rows, tile by tile, in the order in which a gang's lanes read them. All work-groups read the
/// same rows, so they are widened and transposed once per submission.
template <class Format, class T>
class activation_tiles {
 public:
  static constexpr int lanes = spmd::gang_lanes;
  /// Lanes that are read together at least: those of a register, and as many as packed tiles are loaded for.
  static constexpr int part = lanes == 1 ? 1 : std::max(8, spmd::native_lanes<spmd::wide<T>>);

  /// Lays out `rows` rows of `state_size` activations, a whole number of blocks. Lanes after the last tile
  /// are zero.
  void prepare(sycl::host::arena& memory, const T* input, int state_size, int rows = 1,
               activation_sum sums = activation_sum::in_order) {
    const int tiles = state_size / Format::tile;
    moderate_ = may_be_moderate;
    const int padded = (tiles + lanes - 1) / lanes * lanes;
    // Rows that begin a power of two apart would fall into the same few places of the nearest cache.
    stride_ = static_cast<std::int64_t>(padded) * Format::tile + 64 / sizeof(spmd::wide<T>);
    auto* out = memory.template allocate<spmd::wide<T>>(static_cast<std::size_t>(stride_) * rows);
    for (int row = 0; row < rows; ++row)
      lay_out(out + row * stride_, input + std::int64_t{row} * state_size, tiles);
    tiles_ = out;
    if constexpr (Format::needs_activation_sum) {
      auto* total = memory.template allocate<spmd::wide<T>>(static_cast<std::size_t>(padded) * rows);
      for (int row = 0; row < rows; ++row) {
        const T* from = input + std::int64_t{row} * state_size;
        for (int t = 0; t < padded; ++t)
          total[row * padded + t] = t < tiles ? static_cast<spmd::wide<T>>(sum_tile(from, t, sums)) : 0;
      }
      sums_ = total;
      sum_stride_ = padded;
    }
  }

  /// Whether no tile's sum of products is out of the range that spmd::mad_moderate wants, at any step and for
  /// any weights.
  [[gnu::always_inline]] bool moderate() const { return moderate_; }
  static constexpr bool may_be_moderate = spmd::rounds_moderate_faster<T, Format::whole_values> &&
                                          Format::largest_value < std::numeric_limits<float>::infinity();

  /// Activation `place` of tile first + l in lane l; `first` is a multiple of the width.
  template <int Width>
  [[gnu::always_inline]] spmd::varying_t<T, Width> element(int row, int first, int place) const {
    const int lane = Width == lanes ? 0 : first % lanes;
    return wide_load<Width>(tiles_ + row * stride_ + std::int64_t{first - lane} * Format::tile +
                            place * lanes + lane);
  }
  /// The sum of the activations of tile first + l, for formats that ask for it.
  template <int Width>
  [[gnu::always_inline]] spmd::varying_t<T, Width> sum(int row, int first) const {
    if constexpr (Format::needs_activation_sum) {
      return wide_load<Width>(sums_ + row * sum_stride_ + first);
    } else {
      return spmd::varying_t<T, Width>(T(0.0f));
    }
  }

 private:
  void lay_out(spmd::wide<T>* out, const T* from, int tiles) {
    const int tail = tiles / lanes * lanes;
    if (tail < tiles) std::fill_n(out + std::int64_t{tail} * Format::tile, lanes * Format::tile, 0);
    for (int t = 0; t < tiles; ++t) {
      spmd::wide<T>* tile = out + std::int64_t{t} / lanes * (lanes * Format::tile) + t % lanes;
      for (int run = 0; run < Format::tile / 8; ++run) {
        const T* elements = from + Format::run_start(t, run);
        for (int c = 0; c < 8; ++c) tile[(run * 8 + c) * lanes] = elements[c];
      }
      if constexpr (may_be_moderate) {
        float magnitude = 0;
        for (int k = 0; k < Format::tile; ++k) magnitude += std::abs(tile[k * lanes]);
        moderate_ = moderate_ && magnitude * Format::largest_value < spmd::moderate<T>;  // false for NaN
      }
    }
  }

  static T sum_tile(const T* from, int t, activation_sum sums) {
    const auto at = [&](int k) {
      return from[Format::run_start(t, Format::order(k) / 8) + Format::order(k) % 8];
    };
    T total(0.0f);
    for (int k = 0; k < Format::tile; k += 2) {
      total = sums == activation_sum::by_byte ? total + (at(k) + at(k + 1)) : (total + at(k)) + at(k + 1);
    }
    return total;
  }

  template <int Width>
  [[gnu::always_inline]] static spmd::varying_t<T, Width> wide_load(const spmd::wide<T>* at) {
    if constexpr (spmd::reduced<T> && Width > 1) {
      return spmd::lanes<T, Width>(spmd::load<Width>(at));
    } else {
      return spmd::load<Width>(at);
    }
  }

  const spmd::wide<T>* tiles_ = nullptr;
  const spmd::wide<T>* sums_ = nullptr;
  std::int64_t stride_ = 0;
  std::int64_t sum_stride_ = 0;
  bool moderate_ = false;
};

/// Where one weight row's packed values and scales begin.
struct packed_row {
  const std::uint8_t* values;
  const std::uint8_t* scales;
};

/// A zoned weight, and the blocks in one of its rows.
template <class Format>
struct zoned_weight {
  const std::uint8_t* bytes;
  std::int32_t scale_offset;
  std::int64_t blocks_per_row;

  [[gnu::always_inline]] packed_row row(std::int64_t index) const {
    return {bytes + index * blocks_per_row * Format::value_bytes,
            bytes + scale_offset + index * blocks_per_row * Format::scale_bytes};
  }
  /// `Count` rows from `first` on.
  template <int Count>
  [[gnu::always_inline]] std::array<packed_row, Count> rows(std::int64_t first) const {
    std::array<packed_row, Count> result;
    for (int j = 0; j < Count; ++j) result[j] = row(first + j);
    return result;
  }
};

/// Bytes from the start of a zoned weight to its scales, in the 32-bit arithmetic that kernels get it in.
template <class Format>
std::int32_t zoned_scale_offset(std::int64_t state_size, std::int64_t output_size) {
  return static_cast<std::int32_t>(state_size * output_size / Format::block * Format::value_bytes);
}

/// Rounds of tiles that a walk for one activation row has in work at a time: chains of rounded multiply-adds
/// have long latencies, so that eight registers of them should be under way. Memory hides those of plain
/// floats where a gang is few registers.
template <class T, int Lanes>
inline constexpr int rounds_together = [] {
  constexpr int registers = std::max(1, Lanes / spmd::native_lanes<spmd::wide<T>>);
  return spmd::reduced<T> || registers >= 4 ? std::clamp(8 / registers, 2, 4) : 1;
}();

/// Every step of `inlined`, written out.
template <class Body, int... I>
[[gnu::always_inline]] inline void call_each(const Body& body, std::integer_sequence<int, I...>) {
  (body(std::integral_constant<int, I>()), ...);
}
/// spmd::unrolled, inlined in any case: left to the compiler, the innermost loops of walks that a file holds
/// in several sizes stay out of line and take three times as long. The lambdas have the compiler's own
/// attribute, since the standard's form would belong to their type.
template <int Count, class Body>
[[gnu::always_inline]] inline void inlined(const Body& body) {
  call_each(body, std::make_integer_sequence<int, Count>());
}

/// How far before their use packed bytes are asked for.
inline constexpr int bytes_ahead = 2048;

/// Adds the products of tiles first[r] + l of a weight row and of activation rows b0 + a to acc[a] in lane l.
/// `Moderate` says that all activations are.
template <int Width, bool Moderate, class Format, class T, std::size_t Rounds, std::size_t Rows, class Live>
[[gnu::always_inline]] inline void add_tiles(const activation_tiles<Format, T>& input, int b0,
                                             const packed_row& row, const std::array<int, Rounds>& first,
                                             Live live, std::array<spmd::varying_t<T, Width>, Rows>& acc) {
  using value = spmd::varying_t<T, Width>;
  // Load
  std::array<decltype(Format::template load<Width>(row.values, 0, live)), Rounds> tiles;
  inlined<Rounds>([&](auto r) __attribute__((always_inline)) {
    if constexpr (Width > 1) {
      constexpr int bytes = Width * Format::value_bytes / Format::tiles_per_block;
      spmd::prefetch_once<bytes>(row.values + std::int64_t{first[r]} / Width * bytes + bytes_ahead);
    }
    tiles[r] = Format::template load<Width>(row.values, first[r], live);
  });
  // Tile dot
  std::array<value, Rounds * Rows> sum;
  inlined<Format::tile>([&](auto k) __attribute__((always_inline)) {
    inlined<Rounds>([&](auto r) __attribute__((always_inline)) {
      const value w = Format::template element<Format, T, Width>(tiles[r], k);
      inlined<Rows>([&](auto a) __attribute__((always_inline)) {
        const value x = input.template element<Width>(b0 + a, first[r], Format::order(k));
        if constexpr (Moderate) {
          const value so_far = k == 0 ? value(T(0.0f)) : sum[r * Rows + a];
          sum[r * Rows + a] = spmd::mad_moderate<Format::whole_values>(x, w, so_far);
        } else if constexpr (k == 0) {
          sum[r * Rows + a] = x * w;
        } else {
          sum[r * Rows + a] = spmd::mad(x, w, sum[r * Rows + a]);
        }
      });
    });
  });
  // Scale
  inlined<Rounds>([&](auto r) __attribute__((always_inline)) {
    const std::int64_t block = first[r] / Format::tiles_per_block;
    const auto scales = Format::template load_scales<Format::tiles_per_block, T, Width>(
        row.scales + block * Format::scale_bytes, live);
    inlined<Rows>([&](auto a) __attribute__((always_inline)) {
      const value scaled =
          Format::accumulate(acc[a], sum[r * Rows + a], input.template sum<Width>(b0 + a, first[r]), scales);
      acc[a] = spmd::keep_unless(live, scaled, acc[a]);
    });
  });
}

/// Step Walk over one weight row, for `Rows` activation rows from b0 on: returns the accumulators of the
/// gang's work-items. Weight rows are walked one after the other, so that a work-group reads its packed bytes
/// as one run of memory: two rows in turn halve the rate at which they come.
template <int Rows, bool Moderate, class Format, class T, class Item>
[[gnu::always_inline]] inline auto walk_as(const Item& item, const activation_tiles<Format, T>& input, int b0,
                                           int state_size, const packed_row& row) {
  constexpr int n = Item::lanes;
  std::array<spmd::varying<T, Item>, Rows> acc;
  acc.fill(T(0.0f));
  constexpr int together = Rows == 1 ? rounds_together<T, n> : 1;
  spmd::strided<together>(
      item, state_size / Format::tile, [&](const auto& first, auto live) __attribute__((always_inline)) {
        add_tiles<n, Moderate>(input, b0, row, first, live, acc);
      });
  return acc;
}

/// The walk for activations that may not be moderate, where such ones are the exception: a row at a time.
template <int Rows, class Format, class T, class Item>
[[gnu::noinline]] auto walk_any(const Item& item, const activation_tiles<Format, T>& input, int b0,
                                int state_size, const packed_row& row) {
  if constexpr (Rows == 1) {
    return walk_as<1, false>(item, input, b0, state_size, row);
  } else {
    std::array<spmd::varying<T, Item>, Rows> acc;
    for (int a = 0; a < Rows; ++a) acc[a] = walk_any<1>(item, input, b0 + a, state_size, row)[0];
    return acc;
  }
}

/// The walk that the activations allow.
template <int Rows, class Format, class T, class Item>
[[gnu::always_inline]] inline auto walk(const Item& item, const activation_tiles<Format, T>& input, int b0,
                                        int state_size, const packed_row& row) {
  if constexpr (activation_tiles<Format, T>::may_be_moderate) {
    if (!input.moderate()) return walk_any<Rows>(item, input, b0, state_size, row);
    return walk_as<Rows, true>(item, input, b0, state_size, row);
  } else {
    return walk_as<Rows, false>(item, input, b0, state_size, row);
  }
}

/// Step Walk over the first `live` of several weight rows, for `Rows` activation rows from b0 on: calls
/// finish(j, acc) with the accumulators for weight row j. A gang's lanes are taken few registers at a time,
/// so that an unpacked weight and its sums with all activation rows stay in registers, and the weight rows
/// take turns at the activations, which are too many to stay in the nearest cache for longer. As where one
/// row is walked, eight sums that are rounded should be under way.
template <int Rows, class Format, class T, std::size_t Count, class Item, class Finish>
[[gnu::always_inline]] inline void walk_together(const Item& item, const activation_tiles<Format, T>& input,
                                                 int b0, int state_size,
                                                 const std::array<packed_row, Count>& rows, int live,
                                                 const Finish& finish) {
  constexpr int n = Item::lanes, together = spmd::reduced<T> ? std::max(1, 8 / Rows) : 1;
  constexpr int width = std::min(n, activation_tiles<Format, T>::part * together);
  using part = spmd::varying_t<T, width>;
  constexpr bool moderate = activation_tiles<Format, T>::may_be_moderate;
  if constexpr (moderate) {
    if (!input.moderate()) {
      for (int j = 0; j < live; ++j) finish(j, walk_any<Rows>(item, input, b0, state_size, rows[j]));
      return;
    }
  }
  std::array<std::array<std::array<part, Rows>, n / width>, Count> acc;
  for (int j = 0; j < live; ++j) {
    for (auto& own : acc[j]) own.fill(part(T(0.0f)));
  }
  spmd::strided<1>(item, state_size / Format::tile, [&](const auto& round, auto lanes) {
    for (int p = 0; p < n / width; ++p) {
      const auto own = spmd::part_of<width>(lanes, p * width);
      if (own.count <= 0) return;
      for (int j = 0; j < live; ++j) {
        add_tiles<width, moderate>(input, b0, rows[j], std::array{round[0] + p * width}, own, acc[j][p]);
        // Else the compiler copies all activations to the stack before the loop.
        std::atomic_signal_fence(std::memory_order_seq_cst);
      }
    }
  });
  for (int j = 0; j < live; ++j) {
    std::array<spmd::varying<T, Item>, Rows> sums;
    for (int a = 0; a < Rows; ++a) {
      std::array<part, n / width> parts;
      for (int p = 0; p < n / width; ++p) parts[p] = acc[j][p][a];
      sums[a] = spmd::joined_parts<n / width>(parts.data());
    }
    finish(j, sums);
  }
}

/// Steps Walk, Stage and Tree of a work-group: weight row j's dot product with activation row b0 + b as entry
/// b * Rows + j, for work-item 0. Only the first `live` rows exist. `local` holds Rows * Batch * group size
/// elements.
template <int Batch, class Format, class T, std::size_t Rows, class Item>
[[gnu::always_inline]] inline std::array<T, Rows * Batch> row_products(
    const Item& item, const activation_tiles<Format, T>& input, int b0, std::int64_t state_size,
    const std::array<packed_row, Rows>& rows, T* local, int live = Rows) {
  // Walk
  std::array<spmd::varying<T, Item>, Rows * Batch> acc;
  acc.fill(T(0.0f));
  for (int j = 0; j < live; ++j) {
    const auto sums = walk<Batch>(item, input, b0, static_cast<int>(state_size), rows[j]);
    for (int b = 0; b < Batch; ++b) acc[b * Rows + j] = sums[b];
  }
  // Stage, Tree
  return spmd::tree_sum(item, acc, local);
}

}  // namespace tolvane
