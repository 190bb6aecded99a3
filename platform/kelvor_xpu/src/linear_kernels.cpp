#include "linear_kernels.hpp"

#include <immintrin.h>

namespace kelvor_xpu {
namespace {

using std::int64_t;
using std::uint16_t;

constexpr int lanes = 8;

/// Rows of activations and weights, and values of each, that stay in the first-level cache together: 16 KB of
/// activations and 3 KB of weights.
constexpr int row_block = 16;
constexpr int depth_block = 256;
constexpr int tile_rows = 4;
constexpr int tile_columns = 3;

struct Half {
  static __m256 widen(const uint16_t* from) {
    return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
  }
  static float widen_one(uint16_t value) { return _cvtsh_ss(value); }
  static uint16_t round(float value) { return _cvtss_sh(value, _MM_FROUND_TO_NEAREST_INT); }
};

struct BFloat16 {
  static __m256 widen(const uint16_t* from) {
    const __m256i words = _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
    return _mm256_castsi256_ps(_mm256_slli_epi32(words, 16));
  }
  static float widen_one(uint16_t value) {
    return __builtin_bit_cast(float, static_cast<std::uint32_t>(value) << 16);
  }
  static uint16_t round(float value) {
    if (value != value) return 0x7fc0;
    const auto bits = __builtin_bit_cast(std::uint32_t, value);
    return static_cast<uint16_t>((bits + 0x7fff + ((bits >> 16) & 1)) >> 16);
  }
};

/// The last `count` < 8 values of a row, and zeros.
template <class Type>
__m256 widen_tail(const uint16_t* from, int64_t count) {
  uint16_t values[lanes] = {};
  for (int64_t i = 0; i < count; ++i) values[i] = from[i];
  return Type::widen(values);
}

template <class Type>
void widen_row(const uint16_t* from, int64_t count, float* to) {
  int64_t k = 0;
  for (; k + lanes <= count; k += lanes) _mm256_storeu_ps(to + k, Type::widen(from + k));
  if (k < count) _mm256_storeu_ps(to + k, widen_tail<Type>(from + k, count - k));
}

float sum_of(__m256 v) {
  const __m128 four = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
  const __m128 two = _mm_add_ps(four, _mm_movehl_ps(four, four));
  return _mm_cvtss_f32(_mm_add_ss(two, _mm_movehdup_ps(two)));
}

template <class Type>
void write(const LinearCall& call, int64_t row, int64_t column, float sum) {
  float value = call.alpha * sum;
  if (call.addend != nullptr) {
    value += call.beta *
             Type::widen_one(call.addend[row * call.addend_row_stride + column * call.addend_column_stride]);
  }
  call.out[row * call.out_stride + column] = Type::round(value);
}

/// One to three rows: bound by memory, so that each weight is widened where it is used. `Columns` rows of
/// weights are streamed side by side.
template <class Type, int Rows>
void stream_columns(const LinearCall& call, int64_t begin, int64_t end) {
  constexpr int columns = 4;
  for (int64_t first = begin; first < end; first += columns) {
    const uint16_t* weight[columns];
    for (int c = 0; c < columns; ++c) {
      weight[c] = call.weight + (first + c < end ? first + c : end - 1) * call.weight_stride;
    }
    __m256 sums[Rows][columns] = {};
    const auto step = [&](int64_t k, const auto& load) {
      __m256 x[Rows];
      for (int r = 0; r < Rows; ++r) x[r] = _mm256_loadu_ps(call.x + r * call.padded_depth + k);
      for (int c = 0; c < columns; ++c) {
        const __m256 w = load(weight[c] + k);
        for (int r = 0; r < Rows; ++r) sums[r][c] = _mm256_fmadd_ps(x[r], w, sums[r][c]);
      }
    };
    int64_t k = 0;
    for (; k + lanes <= call.depth; k += lanes)
      step(k, [](const uint16_t* from) { return Type::widen(from); });
    if (k < call.depth) {
      step(k, [&](const uint16_t* from) { return widen_tail<Type>(from, call.depth - k); });
    }
    for (int c = 0; c < columns && first + c < end; ++c) {
      for (int r = 0; r < Rows; ++r) write<Type>(call, r, first + c, sum_of(sums[r][c]));
    }
  }
}

/// Adds the products of `depth` values of `Rows` rows of activations and three rows of widened weights to
/// `sums`.
template <int Rows>
void add_products(const float* x, int64_t x_stride, const float* weights, int64_t depth, __m256* sums) {
  __m256 sum[Rows][tile_columns];
  for (int r = 0; r < Rows; ++r) {
    for (int c = 0; c < tile_columns; ++c) sum[r][c] = sums[r * tile_columns + c];
  }
  for (int64_t k = 0; k < depth; k += lanes) {
    __m256 w[tile_columns];
    for (int c = 0; c < tile_columns; ++c) w[c] = _mm256_load_ps(weights + c * depth_block + k);
    for (int r = 0; r < Rows; ++r) {
      const __m256 value = _mm256_loadu_ps(x + r * x_stride + k);
      for (int c = 0; c < tile_columns; ++c) sum[r][c] = _mm256_fmadd_ps(value, w[c], sum[r][c]);
    }
  }
  for (int r = 0; r < Rows; ++r) {
    for (int c = 0; c < tile_columns; ++c) sums[r * tile_columns + c] = sum[r][c];
  }
}

/// Up to 16 rows from `first_row` on and up to 12 columns from `first_column` on.
template <class Type>
void block(const LinearCall& call, int64_t first_row, int rows, int64_t first_column, int columns) {
  alignas(32) float weights[tile_columns * depth_block];
  __m256 sums[linear_columns_at_once / tile_columns][row_block * tile_columns] = {};
  for (int64_t k = 0; k < call.depth; k += depth_block) {
    const int64_t depth = call.depth - k < depth_block ? call.depth - k : depth_block;
    for (int c = 0; c < columns; c += tile_columns) {
      for (int i = 0; i < tile_columns; ++i) {
        const int column = c + i < columns ? c + i : columns - 1;
        widen_row<Type>(call.weight + (first_column + column) * call.weight_stride + k, depth,
                        weights + i * depth_block);
      }
      for (int r = 0; r < rows; r += tile_rows) {
        const float* x = call.x + (first_row + r) * call.padded_depth + k;
        __m256* tile = sums[c / tile_columns] + r * tile_columns;
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
      const __m256 sum = sums[c / tile_columns][r * tile_columns + c % tile_columns];
      write<Type>(call, first_row + r, first_column + c, sum_of(sum));
    }
  }
}

/// More rows: bound by arithmetic, so that a block of weights is widened once for all rows of a block.
template <class Type>
void block_columns(const LinearCall& call, int64_t begin, int64_t end) {
  for (int64_t column = begin; column < end; column += linear_columns_at_once) {
    const int64_t columns = end - column < linear_columns_at_once ? end - column : linear_columns_at_once;
    for (int64_t row = 0; row < call.rows; row += row_block) {
      const int64_t rows = call.rows - row < row_block ? call.rows - row : row_block;
      block<Type>(call, row, static_cast<int>(rows), column, static_cast<int>(columns));
    }
  }
}

template <class Type>
void linear_columns_of(const LinearCall& call, int64_t begin, int64_t end) {
  switch (call.rows) {
    case 1:
      return stream_columns<Type, 1>(call, begin, end);
    case 2:
      return stream_columns<Type, 2>(call, begin, end);
    case 3:
      return stream_columns<Type, 3>(call, begin, end);
    default:
      return block_columns<Type>(call, begin, end);
  }
}

}  // namespace

void linear_columns(const LinearCall& call, int64_t begin, int64_t end) {
  if (call.type == Reduced::half) return linear_columns_of<Half>(call, begin, end);
  linear_columns_of<BFloat16>(call, begin, end);
}

void widen_padded(Reduced type, const uint16_t* from, int64_t count, float* to) {
  if (type == Reduced::half) return widen_row<Half>(from, count, to);
  widen_row<BFloat16>(from, count, to);
}

}  // namespace kelvor_xpu
