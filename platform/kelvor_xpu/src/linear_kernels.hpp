#pragma once
// Matrix products of a few rows of activations with a large matrix of weights in half or bfloat16. The
// weights are read from memory once, and widened to float in registers; sums are in float.
//
// linear_kernels.cpp, like attention_kernels.cpp, is compiled for AVX2, FMA and F16C. Nothing with
// inline functions that other files also use may be included here, since the linker might then pick the AVX2
// copy for all.

#include <cstdint>

#include "element_type.hpp"

namespace kelvor_xpu {

/// out[r][c] = alpha * sum over k of x[r][k] * weight[c][k] + beta * addend[r][c]
struct LinearCall {
  ElementType type;
  const float* x;  ///< as lay_out writes it: rows * padded_depth values
  std::int64_t padded_depth;
  const void* weight;
  std::int64_t weight_stride;
  std::int64_t rows;
  std::int64_t depth;
  const void* addend;  ///< null: none
  std::int64_t addend_row_stride;
  std::int64_t addend_column_stride;
  float alpha;
  float beta;
  void* out;
  std::int64_t out_stride;
};

/// Columns of `out` that are computed together; pieces of work should be multiples of it.
constexpr std::int64_t linear_columns_at_once = 32;

/// `depth` rounded up to what the kernels read at once.
constexpr std::int64_t padded(std::int64_t depth) {
  return (depth + 7) / 8 * 8;
}

/// Rows up to which the weights are multiplied as they stream by.
constexpr std::int64_t most_streamed_rows = 16;

/// Computes the columns [begin, end) of all rows.
void linear_columns(const LinearCall& call, std::int64_t begin, std::int64_t end);

/// Lays out the call's rows of activations, `stride` elements apart, for linear_columns.
void lay_out(const LinearCall& call, const void* from, std::int64_t stride, float* to);

}  // namespace kelvor_xpu
