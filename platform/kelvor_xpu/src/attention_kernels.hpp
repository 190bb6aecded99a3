#pragma once
// Attention of a few query rows to many keys: what a decoder does for each token. Keys and values are read
// once for all rows that share them, in pieces, so that several threads have work for one head.
//
// Like linear_kernels.cpp, attention_kernels.cpp is compiled for AVX2, FMA and F16C: nothing with inline
// functions that other files also use may be included here.

#include <cstdint>

#include "element_type.hpp"

namespace kelvor_xpu {

constexpr std::int64_t attention_rows = 32;   ///< query rows at most
constexpr std::int64_t attention_keys = 256;  ///< keys of a piece at most

/// Some keys of one head, and the query rows that see all of them.
struct AttentionPiece {
  const float* queries;  ///< rows of `padded_depth` values, scaled, zero from `depth` on
  std::int64_t rows;
  std::int64_t depth, padded_depth;
  const void* keys;
  std::int64_t key_stride;  ///< in elements, as the other one
  const void* values;
  std::int64_t value_stride;
  std::int64_t value_depth;
  std::int64_t count;
  float* partial;  ///< per row: `value_depth` sums of weighted values, the largest score, the sum of weights
};

/// Computes `partial`, with weights relative to the piece's largest score.
void attend_to_piece(ElementType type, const AttentionPiece& piece);

/// The result of a row from the `pieces` partial results of its keys, `stride` floats apart.
void merge_pieces(ElementType type, const float* partial, std::int64_t pieces, std::int64_t stride,
                  std::int64_t value_depth, void* out);

/// Writes a query row as `AttentionPiece` wants it.
void scale_query(ElementType type, const void* from, std::int64_t depth, std::int64_t padded_depth,
                 float scale, float* to);

}  // namespace kelvor_xpu
