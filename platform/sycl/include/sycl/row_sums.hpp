#pragma once
// Sums over the rows of a table, a row per lane.

#include <array>

#include "sycl/spmd.hpp"

namespace spmd {

/// Element j of rows 0 … 7 in register j: 24 shuffles.
[[gnu::always_inline]] inline void transpose(std::array<lanes<float, 8>, 8>& r) {
  std::array<lanes<float, 8>, 8> pairs, fours;
  for (int i = 0; i < 8; i += 2) {
    pairs[i] = lanes<float, 8>(_mm256_unpacklo_ps(r[i].v, r[i + 1].v));
    pairs[i + 1] = lanes<float, 8>(_mm256_unpackhi_ps(r[i].v, r[i + 1].v));
  }
  for (int i = 0; i < 8; i += 4) {
    for (int j = 0; j < 2; ++j) {
      fours[i + 2 * j] = lanes<float, 8>(_mm256_shuffle_ps(pairs[i + j].v, pairs[i + j + 2].v, 0x44));
      fours[i + 2 * j + 1] = lanes<float, 8>(_mm256_shuffle_ps(pairs[i + j].v, pairs[i + j + 2].v, 0xEE));
    }
  }
  for (int i = 0; i < 4; ++i) {
    r[i] = lanes<float, 8>(_mm256_permute2f128_ps(fours[i].v, fours[i + 4].v, 0x20));
    r[i + 4] = lanes<float, 8>(_mm256_permute2f128_ps(fours[i].v, fours[i + 4].v, 0x31));
  }
}

/// The sum of row l in lane l, from its first element to its last, in T; a row has `Columns` elements. T is
/// float, half or bfloat16. 24 shuffles and 8 additions for 8 by 8 elements.
template <int N, int Columns, class T>
[[gnu::always_inline]] inline varying_t<T, N> sums_of_rows(const T* table) {
  static_assert(std::same_as<wide<T>, float> && Columns % 8 == 0);
  if constexpr (N == 1) {
    T sum(0.0f);
    for (int c = 0; c < Columns; ++c) sum = sum + load<1>(table + c);
    return sum;
  } else if constexpr (N > 8) {
    const auto low = sums_of_rows<N / 2, Columns>(table);
    const auto high = sums_of_rows<N / 2, Columns>(table + N / 2 * Columns);
    if constexpr (reduced<T>) {
      return lanes<T, N>({low.w, high.w});
    } else {
      return {low, high};
    }
  } else {
    lanes<T, N> sum(T(0.0f));
    for (int c = 0; c < Columns; c += 8) {
      std::array<lanes<float, 8>, 8> part;
      for (int row = 0; row < 8; ++row) {
        const auto values = load<8>(table + row * Columns + c);
        if constexpr (reduced<T>) {
          part[row] = values.w;
        } else {
          part[row] = values;
        }
      }
      transpose(part);
      for (const auto& column : part) sum = sum + lanes<T, N>(column);
    }
    return sum;
  }
}

}  // namespace spmd
