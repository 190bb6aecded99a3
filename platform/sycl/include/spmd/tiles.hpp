#pragma once
// Products of small matrices that are held in registers: the matrix engine's instruction, and what dense
// matrix products are made of.

#include <array>

#include "spmd/convert.hpp"

namespace spmd {

/// Rows of N floats, one column per lane.
template <std::size_t Rows, int N>
using row_tile = std::array<lanes<float, N>, Rows>;

/// sums[r] += x[0][r] * w(0) + … + x[Depth - 1][r] * w(Depth - 1), where x is a matrix of `Rows` floats a
/// row and w(k), with k as std::integral_constant, gives a register. With partial sums, product k goes to sum
/// k % Parts; these are added up in order, and their sum to `sums`. Costs w(k) once, and per row and k
/// a load and a multiply-add. Eight rows of one register each, or six of two, are as many as the narrower
/// target can hold.
template <int Depth, int Parts, std::size_t Rows, int N, class Weights>
[[gnu::always_inline]] inline void add_products(row_tile<Rows, N>& sums, const float* x, const Weights& w) {
  constexpr int parts = Parts, rows = Rows;
  std::array<lanes<float, N>, rows * parts> sum;
  unrolled<rows * parts>([&](auto i) { sum[i] = parts == 1 ? sums[i % rows] : lanes<float, N>(0.0f); });
  unrolled<Depth>([&](auto k) [[gnu::always_inline]] {
    const lanes<float, N> weight = w(k);
    unrolled<rows>([&](auto r) [[gnu::always_inline]] {
      lanes<float, N>& own = sum[k % parts * rows + r];
      own = mad(lanes<float, N>(x[k * rows + r]), weight, own);
    });
  });
  unrolled<rows>([&](auto r) [[gnu::always_inline]] {
    unrolled<parts - 1>([&](auto p) { sum[r] = sum[r] + sum[(p + 1) * rows + r]; });
    sums[r] = parts == 1 ? sum[r] : sums[r] + sum[r];
  });
}

}  // namespace spmd
