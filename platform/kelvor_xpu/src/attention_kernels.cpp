#include "attention_kernels.hpp"

#include "wide_elements.hpp"

namespace kelvor_xpu {
namespace {

using std::int64_t;

/// e^x for x up to 0, to a few units in the last place; what is below the smallest normal float becomes that.
[[gnu::always_inline]] inline floats exponential(const floats& exponent) {
  constexpr float rounder = 12582912.0F;  // its unit is 1
  const floats x = spmd::select(exponent < floats(-87.0F), floats(-87.0F), exponent);
  const floats shifted = spmd::mad(x, floats(1.44269504F), floats(rounder));
  const floats n = shifted - floats(rounder);
  floats f = spmd::mad(n, floats(-0.693359375F), x);
  f = spmd::mad(n, floats(2.12194440e-4F), f);
  floats p = 1.9875691500e-4F;
  for (const float c :
       {1.3981999507e-3F, 8.3334519073e-3F, 4.1665795894e-2F, 1.6666665459e-1F, 5.0000001201e-1F}) {
    p = spmd::mad(p, f, floats(c));
  }
  p = spmd::mad(p * f, f, f) + floats(1.0F);
  const auto power =
      (spmd::bit_cast<std::uint32_t>(shifted) << 23) + spmd::lanes<std::uint32_t, lanes>(0x3F800000u);
  return p * spmd::bit_cast<float>(power);
}

/// The scores of `Rows` query rows.
template <class T, int Rows>
[[gnu::always_inline]] inline void score(const AttentionPiece& piece, int64_t first, float* scores) {
  for (int64_t key = 0; key < piece.count; ++key) {
    const T* const from = static_cast<const T*>(piece.keys) + key * piece.key_stride;
    floats sums[Rows];
    for (floats& sum : sums) sum = 0.0F;
    for (int64_t k = 0; k < piece.depth; k += lanes) {
      const floats x = widened(from + k, piece.depth - k);
      for (int r = 0; r < Rows; ++r) {
        const float* const query = piece.queries + (first + r) * piece.padded_depth;
        sums[r] = spmd::mad(spmd::load<lanes>(query + k), x, sums[r]);
      }
    }
    for (int r = 0; r < Rows; ++r) scores[r * attention_keys + key] = spmd::tree_sum(sums[r]);
  }
}

/// Turns a row's scores into weights; returns their sum, and the largest score in `largest`.
inline float weigh(float* scores, int64_t count, float& largest) {
  largest = scores[0];
  for (int64_t key = 1; key < count; ++key) {
    if (!(scores[key] <= largest))
      largest = scores[key];  // a NaN stays until a number follows, and shows below
  }
  floats total = 0.0F;
  for (int64_t key = 0; key < count; key += lanes) {
    const auto live = spmd::first_lanes{static_cast<int>(count - key < lanes ? count - key : lanes)};
    const floats weights = exponential(spmd::load<lanes>(scores + key) - floats(largest));
    spmd::store(scores + key, weights);
    if (count - key >= lanes) {
      total = total + weights;
    } else {
      total = total + spmd::load<lanes>(scores + key, live);
    }
  }
  return spmd::tree_sum(total);
}

/// The weighted sums of `Registers` registers of values from `column` on, for `Rows` rows.
template <class T, int Rows, int Registers>
[[gnu::always_inline]] inline void mix(const AttentionPiece& piece, int64_t first, int64_t column,
                                       const float* weights) {
  floats sums[Rows][Registers];
  for (auto& row : sums) {
    for (floats& sum : row) sum = 0.0F;
  }
  for (int64_t key = 0; key < piece.count; ++key) {
    const T* const from = static_cast<const T*>(piece.values) + key * piece.value_stride + column;
    for (int i = 0; i < Registers; ++i) {
      const floats x = widened(from + i * lanes, piece.value_depth - column - i * lanes);
      for (int r = 0; r < Rows; ++r) {
        sums[r][i] = spmd::mad(floats(weights[(first + r) * attention_keys + key]), x, sums[r][i]);
      }
    }
  }
  for (int r = 0; r < Rows; ++r) {
    float* const out = piece.partial + (first + r) * (piece.value_depth + 2) + column;
    for (int i = 0; i < Registers; ++i) {
      const int64_t left = piece.value_depth - column - i * lanes;
      if (left >= lanes) {
        spmd::store(out + i * lanes, sums[r][i]);
      } else {
        spmd::store(out + i * lanes, sums[r][i], spmd::first_lanes{static_cast<int>(left)});
      }
    }
  }
}

template <class T, int Rows>
[[gnu::always_inline]] inline void mix_rows(const AttentionPiece& piece, int64_t first,
                                            const float* weights) {
  constexpr int registers = 2;
  int64_t column = 0;
  for (; column + registers * lanes <= piece.value_depth; column += registers * lanes) {
    mix<T, Rows, registers>(piece, first, column, weights);
  }
  for (; column < piece.value_depth; column += lanes) mix<T, Rows, 1>(piece, first, column, weights);
}

template <class T>
void attend(const AttentionPiece& piece) {
  alignas(64) float scores[attention_rows * attention_keys];
  constexpr int rows_together = 4;
  int64_t row = 0;
  for (; row + rows_together <= piece.rows; row += rows_together) {
    score<T, rows_together>(piece, row, scores + row * attention_keys);
  }
  for (; row < piece.rows; ++row) score<T, 1>(piece, row, scores + row * attention_keys);
  for (row = 0; row < piece.rows; ++row) {
    float* const end = piece.partial + row * (piece.value_depth + 2) + piece.value_depth;
    end[1] = weigh(scores + row * attention_keys, piece.count, end[0]);
  }
  for (row = 0; row + rows_together <= piece.rows; row += rows_together) {
    mix_rows<T, rows_together>(piece, row, scores);
  }
  for (; row < piece.rows; ++row) mix_rows<T, 1>(piece, row, scores);
}

template <class T>
void merge(const float* partial, int64_t pieces, int64_t stride, int64_t value_depth, T* out) {
  float largest = partial[value_depth];
  for (int64_t i = 1; i < pieces; ++i) {
    const float own = partial[i * stride + value_depth];
    if (!(own <= largest)) largest = own;
  }
  // Pieces are not many: what they count by is computed once per register of columns.
  for (int64_t column = 0; column < value_depth; column += lanes) {
    floats sum = 0.0F, total = 0.0F;
    const int64_t left = value_depth - column;
    for (int64_t i = 0; i < pieces; ++i) {
      const float* const own = partial + i * stride;
      const floats factor = exponential(floats(own[value_depth] - largest));
      total = spmd::mad(factor, floats(own[value_depth + 1]), total);
      sum = spmd::mad(factor, widened(own + column, left), sum);
    }
    alignas(64) float values[lanes];
    spmd::store(values, sum / total);
    for (int l = 0; l < lanes && l < left; ++l) {
      out[column + l] = narrowed<T>(values[l]);
    }
  }
}

template <class T>
void scaled(const T* from, int64_t depth, int64_t padded_depth, float scale, float* to) {
  for (int64_t k = 0; k < padded_depth; k += lanes)
    spmd::store(to + k, widened(from + k, depth - k) * floats(scale));
}

}  // namespace

void attend_to_piece(ElementType type, const AttentionPiece& piece) {
  with_type(type, [&]<class T>(T) { attend<T>(piece); });
}

void merge_pieces(ElementType type, const float* partial, int64_t pieces, int64_t stride, int64_t value_depth,
                  void* out) {
  with_type(type, [&]<class T>(T) { merge(partial, pieces, stride, value_depth, static_cast<T*>(out)); });
}

void scale_query(ElementType type, const void* from, int64_t depth, int64_t padded_depth, float scale,
                 float* to) {
  with_type(type, [&]<class T>(T) { scaled(static_cast<const T*>(from), depth, padded_depth, scale, to); });
}

}  // namespace kelvor_xpu
