#pragma once
// Products of a dense matrix's rows with rows of activations, as tiles of activation rows times panels of
// weights: the product of the xpu device, and of packed weights that have been expanded.

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

#include "spmd/spmd.hpp"
#include "spmd/tiles.hpp"

namespace spmd {

/// Activation rows of a tile, as many as registers hold beside a panel's two.
inline constexpr int tile_rows = target::register_bytes == 64 ? 12 : 6;
/// Weight rows of a panel, and the elements of each that are multiplied together: what stays in the
/// first-level cache.
inline constexpr int panel_columns = std::max(8, 2 * native_lanes<float>);
inline constexpr int panel_depth = 256;
/// Weight rows that are multiplied together, and the activation rows that then stay in the second-level
/// cache.
inline constexpr int product_columns = 32;
inline constexpr int product_rows = 192;

/// `depth` in whole eights, which is what is read at once.
constexpr std::int64_t padded_depth(std::int64_t depth) {
  return (depth + 7) / 8 * 8;
}

/// The tiles of `rows` activation rows: as few as there can be, and of about the same size.
constexpr std::int64_t tiles_of(std::int64_t rows) {
  return (rows + tile_rows - 1) / tile_rows;
}
constexpr std::int64_t tile_begin(std::int64_t rows, std::int64_t tile) {
  return tile * rows / tiles_of(rows);
}

/// Lays out a tile of activation rows for `multiply_columns`: `count` of `rows` rows from `first` on,
/// `stride` elements apart, are rounded to As, widened and stand side by side, element by element, with zeros
/// up to the padded depth. All tiles need rows * padded_depth floats.
template <class As, class T>
void lay_out_tile(const T* from, std::int64_t stride, std::int64_t rows, std::int64_t tile,
                  std::int64_t depth, float* to) {
  const std::int64_t padded = padded_depth(depth), first = tile_begin(rows, tile);
  const std::int64_t count = tile_begin(rows, tile + 1) - first;
  to += first * padded;
  for (std::int64_t r = 0; r < count; ++r) {
    const T* row = from + (first + r) * stride;
    for (std::int64_t k = 0; k < padded; k += 8) {
      const auto live = static_cast<int>(std::min<std::int64_t>(8, depth - k));
      const auto eight =
          convert<float>(convert<As>(live == 8 ? load<8>(row + k) : load<8>(row + k, first_lanes{live})));
      std::array<float, 8> values;
      std::memcpy(values.data(), &eight, sizeof values);
      for (std::int64_t i = 0; i < 8; ++i) to[(k + i) * count + r] = values[i];
    }
  }
}

/// Widens `depth` elements of `columns` weight rows into a panel: the rows' elements side by side. Places of
/// rows that do not exist repeat the last; elements that do not are zeros up to whole eights.
template <class T>
[[gnu::flatten, gnu::noinline]] void lay_out_panel(const T* from, std::int64_t stride, std::int64_t columns,
                                                   std::int64_t depth, float* panel) {
  for (int c = 0; c < panel_columns; c += 8) {
    std::array<const T*, 8> row;
    for (int i = 0; i < 8; ++i) row[i] = from + std::min<std::int64_t>(c + i, columns - 1) * stride;
    float* to = panel + c;
    const auto turn = [&](std::int64_t k, const auto& live) [[gnu::always_inline]] {
      std::array<eight_floats, 8> values;
      unrolled<8>([&](auto i)
                      [[gnu::always_inline]] { values[i] = convert<float>(load<8>(row[i] + k, live)); });
      const auto turned = transposed(values);
      unrolled<8>([&](auto i) [[gnu::always_inline]] { store(to + (k + i) * panel_columns, turned[i]); });
    };
    std::int64_t k = 0;
    for (; k + 8 <= depth; k += 8) turn(k, all_lanes<8>());
    if (k < depth) turn(k, first_lanes{static_cast<int>(depth - k)});
  }
}

/// sums[r][c] += the products of `depth` elements of Rows activation rows with a panel.
template <int Rows>
[[gnu::flatten, gnu::noinline]] void add_panel(const float* x, const float* panel, std::int64_t depth,
                                               float* sums) {
  row_tile<Rows, panel_columns> tile;
  tile.fill(lanes<float, panel_columns>(0.0f));
  for (std::int64_t k = 0; k < depth; k += 8) {
    add_products<8, 1>(tile, x + k * Rows, [&](auto i) [[gnu::always_inline]] {
      return load<panel_columns>(panel + (k + i) * panel_columns);
    });
  }
  for (int r = 0; r < Rows; ++r) {
    float* to = sums + r * product_columns;
    store(to, load<panel_columns>(to) + tile[r]);
  }
}

/// The sums over k of x[r][k] * weight[c][k] for `rows` activation rows, laid out, and up to product_columns
/// weight rows `stride` elements apart. Calls write(r, sums) with the sums of a row, one after the other. A
/// sum is that of the sums of panel_depth products each, in order, on every target.
template <class T, class Write>
void multiply_columns(const float* x, std::int64_t rows, std::int64_t depth, const T* weight,
                      std::int64_t stride, std::int64_t columns, const Write& write) {
  static constexpr auto add = []<int... I>(std::integer_sequence<int, I...>) {
    return std::array{add_panel<I + 1>...};
  }
  (std::make_integer_sequence<int, tile_rows>());
  constexpr std::int64_t tiles_together = product_rows / tile_rows;
  struct alignas(64) {
    float panel[panel_columns * panel_depth], sums[product_rows * product_columns];
  } own;
  const sycl::host::accessible_here all(&own, sizeof own);
  const std::int64_t padded = padded_depth(depth), tiles = tiles_of(rows);
  for (std::int64_t tile = 0; tile < tiles; tile += tiles_together) {
    const std::int64_t last = std::min(tiles, tile + tiles_together), row = tile_begin(rows, tile);
    std::fill_n(own.sums, product_rows * product_columns, 0.0f);
    for (std::int64_t k = 0; k < depth; k += panel_depth) {
      const std::int64_t part = std::min<std::int64_t>(panel_depth, depth - k);
      for (std::int64_t c = 0; c < columns; c += panel_columns) {
        lay_out_panel(weight + c * stride + k, stride, columns - c, part, own.panel);
        for (std::int64_t t = tile; t < last; ++t) {
          const std::int64_t first = tile_begin(rows, t), count = tile_begin(rows, t + 1) - first;
          add[count - 1](x + first * padded + k * count, own.panel, part,
                         own.sums + (first - row) * product_columns + c);
        }
      }
    }
    for (std::int64_t r = row; r < tile_begin(rows, last); ++r)
      write(r, own.sums + (r - row) * product_columns);
  }
}

}  // namespace spmd
