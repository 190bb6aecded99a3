#pragma once
// Transposition of small tables, and sums over their rows and over work-groups.

#include <array>

#include "spmd/memory.hpp"
#include "spmd/movement.hpp"

namespace spmd {

// Shuffles of two registers of eight, one instruction each. "Quarters" are the four elements of 128 bits,
// which most instructions keep apart.

using eight_floats = lanes<float, 8>;

/// Of each quarter of `a` and `b`: a0 b0 a1 b1, and a2 b2 a3 b3.
[[gnu::always_inline]] inline eight_floats low_turns(const eight_floats& a, const eight_floats& b) {
  return eight_floats(shuffled<8>(a.v, b.v, [](int l) { return l / 4 * 4 + l % 4 / 2 + l % 2 * 8; }));
}
[[gnu::always_inline]] inline eight_floats high_turns(const eight_floats& a, const eight_floats& b) {
  return eight_floats(shuffled<8>(a.v, b.v, [](int l) { return l / 4 * 4 + 2 + l % 4 / 2 + l % 2 * 8; }));
}
/// Of each quarter: a0 a1 b0 b1, and a2 a3 b2 b3.
[[gnu::always_inline]] inline eight_floats low_pairs(const eight_floats& a, const eight_floats& b) {
  return eight_floats(shuffled<8>(a.v, b.v, [](int l) { return l / 4 * 4 + l % 2 + l % 4 / 2 * 8; }));
}
[[gnu::always_inline]] inline eight_floats high_pairs(const eight_floats& a, const eight_floats& b) {
  return eight_floats(shuffled<8>(a.v, b.v, [](int l) { return l / 4 * 4 + 2 + l % 2 + l % 4 / 2 * 8; }));
}
/// Of each quarter: a0 a2 b0 b2, and a1 a3 b1 b3.
template <int N>
[[gnu::always_inline]] inline lanes<float, N> evens(const lanes<float, N>& a, const lanes<float, N>& b) {
  return lanes<float, N>(shuffled<N>(a.v, b.v, [](int l) { return l / 4 * 4 + l % 2 * 2 + l % 4 / 2 * N; }));
}
template <int N>
[[gnu::always_inline]] inline lanes<float, N> odds(const lanes<float, N>& a, const lanes<float, N>& b) {
  return lanes<float, N>(
      shuffled<N>(a.v, b.v, [](int l) { return l / 4 * 4 + 1 + l % 2 * 2 + l % 4 / 2 * N; }));
}
/// The lower quarters of `a` and `b`, and the upper ones.
[[gnu::always_inline]] inline eight_floats low_quarters(const eight_floats& a, const eight_floats& b) {
  return joined(lower(a), lower(b));
}
[[gnu::always_inline]] inline eight_floats high_quarters(const eight_floats& a, const eight_floats& b) {
  return joined(upper(a), upper(b));
}

/// The 4 x 4 matrices of the lower and of the upper quarters of four registers, transposed. 8 shuffles.
[[gnu::always_inline]] inline std::array<eight_floats, 4> transposed_quarters(const eight_floats* x) {
  const eight_floats ab0 = low_turns(x[0], x[1]), ab1 = high_turns(x[0], x[1]);
  const eight_floats cd0 = low_turns(x[2], x[3]), cd1 = high_turns(x[2], x[3]);
  return {low_pairs(ab0, cd0), high_pairs(ab0, cd0), low_pairs(ab1, cd1), high_pairs(ab1, cd1)};
}

/// Element j of rows 0 … 7 in register j: 24 shuffles.
[[gnu::always_inline]] inline std::array<eight_floats, 8> transposed(
    const std::array<eight_floats, 8>& rows) {
  const auto first = transposed_quarters(rows.data()), second = transposed_quarters(rows.data() + 4);
  std::array<eight_floats, 8> columns;
  for (int j = 0; j < 4; ++j) {
    columns[j] = low_quarters(first[j], second[j]);
    columns[j + 4] = high_quarters(first[j], second[j]);
  }
  return columns;
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
    return joined(sums_of_rows<N / 2, Columns>(table), sums_of_rows<N / 2, Columns>(table + N / 2 * Columns));
  } else {
    lanes<T, N> sum(T(0.0f));
    for (int c = 0; c < Columns; c += 8) {
      std::array<eight_floats, 8> part;
      for (int row = 0; row < 8; ++row) part[row] = convert<float>(load<8>(table + row * Columns + c));
      for (const auto& column : transposed(part)) sum = sum + lanes<T, N>(column);
    }
    return sum;
  }
}

/// Sums `Rows` values over the work-group, whose size is a power of two: Stage writes value j of work-item l
/// to local[j * group size + l], Tree adds entry l + stride to entry l, for stride halving down to 1, in T.
/// `local` holds Rows * group size elements. The result is work-item 0's; gangs other than the first get
/// nothing useful. Where one gang is the whole group the same sums are made in registers.
template <class T, class Item, class V, std::size_t Rows>
[[gnu::always_inline]] inline std::array<T, Rows> tree_sum(const Item& item, const std::array<V, Rows>& value,
                                                           T* local) {
  constexpr int n = Item::lanes;
  const int size = item.group_size();
  std::array<T, Rows> sum{};
  if constexpr (n > 1) {
    if (size == n) {
      unrolled<Rows>([&](auto j) { sum[j] = tree_sum(value[j]); });
      return sum;
    }
  }
  for (std::size_t j = 0; j < Rows; ++j) store(local + j * size + item.first(), value[j]);
  item.barrier();
  for (int stride = size / 2; stride >= n; stride /= 2) {
    if (item.first() < stride) {
      for (std::size_t j = 0; j < Rows; ++j) {
        T* entry = local + j * size + item.first();
        store(entry, load<n>(entry) + load<n>(entry + stride));
      }
    }
    item.barrier();
  }
  if (item.first() == 0) {
    for (std::size_t j = 0; j < Rows; ++j) {
      if constexpr (n > 1) {
        sum[j] = tree_sum(load<n>(local + j * size));
      } else {
        sum[j] = local[j * size];
      }
    }
  }
  return sum;
}

}  // namespace spmd
