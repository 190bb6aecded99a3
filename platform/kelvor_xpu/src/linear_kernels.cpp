#include "linear_kernels.hpp"

#include "spmd/dense_product.hpp"
#include "wide_elements.hpp"

namespace kelvor_xpu {
namespace {

using std::int64_t;

template <class T>
const T* row_of(const LinearCall& call, int64_t column) {
  return static_cast<const T*>(call.weight) + column * call.weight_stride;
}

/// Calls body(first, count) for each tile of rows.
template <class Body>
void for_tiles(int64_t rows, const Body& body) {
  for (int64_t tile = 0; tile < spmd::tiles_of(rows); ++tile) {
    const int64_t first = spmd::tile_begin(rows, tile);
    body(first, spmd::tile_begin(rows, tile + 1) - first);
  }
}

/// Writes a sum.
template <class T>
void write(const LinearCall& call, int64_t row, int64_t column, float sum) {
  float value = call.alpha * sum;
  if (call.addend != nullptr) {
    const auto* addend = static_cast<const T*>(call.addend);
    value += call.beta * float(addend[row * call.addend_row_stride + column * call.addend_column_stride]);
  }
  static_cast<T*>(call.out)[row * call.out_stride + column] = narrowed<T>(value);
}

/// Up to `columns` columns from `first` on of `Rows` rows from `row` on: each weight is widened where it is
/// used, and the columns' weights are streamed side by side.
template <class T, int Rows, int columns>
void stream(const LinearCall& call, int64_t row, int64_t first, int64_t end) {
  const float* const tile = call.x + row * call.padded_depth;
  std::array<const T*, columns> weight;
  for (int c = 0; c < columns; ++c) weight[c] = row_of<T>(call, first + c < end ? first + c : end - 1);
  std::array<floats, Rows * columns> sums;
  sums.fill(0.0F);
  // Places are constants, without which the sums would be stored in every step.
  const auto step = [&](int64_t k, const auto& live) [[gnu::always_inline]] {
    std::array<floats, Rows> x;
    spmd::unrolled<Rows>(
        [&](auto r) [[gnu::always_inline]] { x[r] = spmd::load<lanes>(tile + k * Rows + r * lanes); });
    spmd::unrolled<columns>([&](auto c) [[gnu::always_inline]] {
      const auto w = spmd::convert<float>(spmd::load<lanes>(weight[c] + k, live));
      spmd::unrolled<Rows>([&](auto r) [[gnu::always_inline]] {
        sums[c * Rows + r] = spmd::mad(x[r], w, sums[c * Rows + r]);
      });
    });
  };
  int64_t k = 0;
  for (; k + lanes <= call.depth; k += lanes) step(k, spmd::all_lanes<lanes>());
  if (k < call.depth) step(k, spmd::first_lanes{static_cast<int>(call.depth - k)});
  spmd::unrolled<columns>([&](auto c) {
    if (first + c >= end) return;
    spmd::unrolled<Rows>(
        [&](auto r) { write<T>(call, row + r, first + c, spmd::tree_sum(sums[c * Rows + r])); });
  });
}

/// A few rows, tile by tile while the columns' weights are in the first-level cache.
template <class T, int Columns, int... Rows>
void stream_columns(const LinearCall& call, int64_t begin, int64_t end, std::integer_sequence<int, Rows...>) {
  static constexpr std::array tiles{stream<T, Rows + 1, Columns>...};
  for (int64_t first = begin; first < end; first += Columns) {
    for_tiles(call.rows, [&](int64_t row, int64_t count) { tiles[count - 1](call, row, first, end); });
  }
}

/// More rows: bound by arithmetic, so that panels of weights are widened once for all rows.
template <class T>
void panel_columns(const LinearCall& call, int64_t begin, int64_t end) {
  for (int64_t first = begin; first < end; first += spmd::product_columns) {
    const int64_t columns = end - first < spmd::product_columns ? end - first : spmd::product_columns;
    spmd::multiply_columns(call.x, call.rows, call.depth, row_of<T>(call, first), call.weight_stride, columns,
                           [&](int64_t row, const float* sums) {
                             for (int64_t c = 0; c < columns; ++c) write<T>(call, row, first + c, sums[c]);
                           });
  }
}

}  // namespace

void linear_columns(const LinearCall& call, int64_t begin, int64_t end) {
  with_type(call.type, [&]<class T>(T) {
    if (call.rows > most_streamed_rows) return panel_columns<T>(call, begin, end);
    if (call.rows > 3)
      return stream_columns<T, 2>(call, begin, end, std::make_integer_sequence<int, spmd::tile_rows>());
    stream_columns<T, 4>(call, begin, end, std::make_integer_sequence<int, 3>());
  });
}

void lay_out(const LinearCall& call, const void* from, int64_t stride, float* to) {
  with_type(call.type, [&]<class T>(T) {
    const auto* rows = static_cast<const T*>(from);
    if (call.rows > most_streamed_rows) {
      for (int64_t tile = 0; tile < spmd::tiles_of(call.rows); ++tile)
        spmd::lay_out_tile<T>(rows, stride, call.rows, tile, call.depth, to);
      return;
    }
    for_tiles(call.rows, [&](int64_t first, int64_t count) {
      float* const tile = to + first * call.padded_depth;
      for (int64_t r = 0; r < count; ++r) {
        const T* row = rows + (first + r) * stride;
        for (int64_t k = 0; k < call.depth; k += lanes) {
          spmd::store(tile + k * count + r * lanes, widened(row + k, call.depth - k));
        }
      }
    });
  });
}

}  // namespace kelvor_xpu
