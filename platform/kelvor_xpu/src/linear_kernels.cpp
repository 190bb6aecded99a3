#include "linear_kernels.hpp"

#include "wide_elements.hpp"

namespace kelvor_xpu {
namespace {

using std::int64_t;

/// Rows of activations and weights, and values of each, that stay in the first-level cache together: 16 KB of
/// activations and 3 KB of weights.
constexpr int row_block = 16;
constexpr int depth_block = 256;
constexpr int tile_rows = 4;
constexpr int tile_columns = 3;

template <class T>
const T* row_of(const LinearCall& call, int64_t column) {
  return static_cast<const T*>(call.weight) + column * call.weight_stride;
}

template <class T>
void widen_row(const T* from, int64_t count, float* to) {
  for (int64_t k = 0; k < count; k += lanes) spmd::store(to + k, widened(from + k, count - k));
}

template <class T>
void write(const LinearCall& call, int64_t row, int64_t column, const floats& sums) {
  float value = call.alpha * spmd::tree_sum(sums);
  if (call.addend != nullptr) {
    const auto* addend = static_cast<const T*>(call.addend);
    value += call.beta * float(addend[row * call.addend_row_stride + column * call.addend_column_stride]);
  }
  static_cast<T*>(call.out)[row * call.out_stride + column] = narrowed<T>(value);
}

/// One to three rows: bound by memory, so that each weight is widened where it is used. `columns` rows of
/// weights are streamed side by side.
template <class T, int Rows>
void stream_columns(const LinearCall& call, int64_t begin, int64_t end) {
  constexpr int columns = 4;
  for (int64_t first = begin; first < end; first += columns) {
    const T* weight[columns];
    for (int c = 0; c < columns; ++c) weight[c] = row_of<T>(call, first + c < end ? first + c : end - 1);
    floats sums[Rows][columns];
    for (auto& row : sums) {
      for (floats& sum : row) sum = 0.0F;
    }
    const auto step = [&](int64_t k, int64_t left) [[gnu::always_inline]] {
      floats x[Rows];
      for (int r = 0; r < Rows; ++r) x[r] = spmd::load<lanes>(call.x + r * call.padded_depth + k);
      for (int c = 0; c < columns; ++c) {
        const floats w = widened(weight[c] + k, left);
        for (int r = 0; r < Rows; ++r) sums[r][c] = spmd::mad(x[r], w, sums[r][c]);
      }
    };
    int64_t k = 0;
    for (; k + lanes <= call.depth; k += lanes) step(k, lanes);
    if (k < call.depth) step(k, call.depth - k);
    for (int c = 0; c < columns && first + c < end; ++c) {
      for (int r = 0; r < Rows; ++r) write<T>(call, r, first + c, sums[r][c]);
    }
  }
}

/// Adds the products of `depth` values of `Rows` rows of activations and three rows of widened weights to
/// `sums`.
template <int Rows>
void add_products(const float* x, int64_t x_stride, const float* weights, int64_t depth, floats* sums) {
  floats sum[Rows][tile_columns];
  for (int r = 0; r < Rows; ++r) {
    for (int c = 0; c < tile_columns; ++c) sum[r][c] = sums[r * tile_columns + c];
  }
  for (int64_t k = 0; k < depth; k += lanes) {
    floats w[tile_columns];
    for (int c = 0; c < tile_columns; ++c) w[c] = spmd::load<lanes>(weights + c * depth_block + k);
    for (int r = 0; r < Rows; ++r) {
      const floats value = spmd::load<lanes>(x + r * x_stride + k);
      for (int c = 0; c < tile_columns; ++c) sum[r][c] = spmd::mad(value, w[c], sum[r][c]);
    }
  }
  for (int r = 0; r < Rows; ++r) {
    for (int c = 0; c < tile_columns; ++c) sums[r * tile_columns + c] = sum[r][c];
  }
}

/// Up to 16 rows from `first_row` on and up to 12 columns from `first_column` on.
template <class T>
void block(const LinearCall& call, int64_t first_row, int rows, int64_t first_column, int columns) {
  alignas(64) float weights[tile_columns * depth_block];
  floats sums[linear_columns_at_once / tile_columns][row_block * tile_columns];
  for (auto& tiles : sums) {
    for (floats& sum : tiles) sum = 0.0F;
  }
  for (int64_t k = 0; k < call.depth; k += depth_block) {
    const int64_t depth = call.depth - k < depth_block ? call.depth - k : depth_block;
    for (int c = 0; c < columns; c += tile_columns) {
      for (int i = 0; i < tile_columns; ++i) {
        const int column = c + i < columns ? c + i : columns - 1;
        widen_row(row_of<T>(call, first_column + column) + k, depth, weights + i * depth_block);
      }
      for (int r = 0; r < rows; r += tile_rows) {
        const float* x = call.x + (first_row + r) * call.padded_depth + k;
        floats* tile = sums[c / tile_columns] + r * tile_columns;
        switch (rows - r) {
          case 1:
            add_products<1>(x, call.padded_depth, weights, depth, tile);
            break;
          case 2:
            add_products<2>(x, call.padded_depth, weights, depth, tile);
            break;
          case 3:
            add_products<3>(x, call.padded_depth, weights, depth, tile);
            break;
          default:
            add_products<tile_rows>(x, call.padded_depth, weights, depth, tile);
        }
      }
    }
  }
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < columns; ++c) {
      write<T>(call, first_row + r, first_column + c,
               sums[c / tile_columns][r * tile_columns + c % tile_columns]);
    }
  }
}

/// More rows: bound by arithmetic, so that a block of weights is widened once for all rows of a block.
template <class T>
void block_columns(const LinearCall& call, int64_t begin, int64_t end) {
  for (int64_t column = begin; column < end; column += linear_columns_at_once) {
    const int64_t columns = end - column < linear_columns_at_once ? end - column : linear_columns_at_once;
    for (int64_t row = 0; row < call.rows; row += row_block) {
      const int64_t rows = call.rows - row < row_block ? call.rows - row : row_block;
      block<T>(call, row, static_cast<int>(rows), column, static_cast<int>(columns));
    }
  }
}

template <class T>
void linear_columns_of(const LinearCall& call, int64_t begin, int64_t end) {
  switch (call.rows) {
    case 1:
      return stream_columns<T, 1>(call, begin, end);
    case 2:
      return stream_columns<T, 2>(call, begin, end);
    case 3:
      return stream_columns<T, 3>(call, begin, end);
    default:
      return block_columns<T>(call, begin, end);
  }
}

}  // namespace

void linear_columns(const LinearCall& call, int64_t begin, int64_t end) {
  with_type(call.type, [&]<class T>(T) { linear_columns_of<T>(call, begin, end); });
}

void widen_padded(ElementType type, const void* from, int64_t count, float* to) {
  with_type(type, [&]<class T>(T) { widen_row(static_cast<const T*>(from), count, to); });
}

}  // namespace kelvor_xpu
