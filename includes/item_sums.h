#pragma once
// Sums over the vectors that neighbouring work-items hold: each work-item's in the order of its elements, and
// over a sub-group of 32 work-items from neighbour to neighbour. A gang takes eight work-items at a time: it
// reads their vectors as they stand in memory and transposes them.

#include <array>

#include "spmd/spmd.hpp"
#include "sycl/group.hpp"

namespace tolvane {

using spmd::eight_floats;

/// Of eight work-items with Vec elements each, as they stand in memory, element j of all: the lanes are the
/// work-items, in an order that `in_item_order` puts right. 0, 1, 2 or 3 shuffles per register for Vec 1, 2,
/// 4, 8.
template <int Vec>
[[gnu::always_inline]] inline std::array<eight_floats, Vec> by_element(
    const std::array<eight_floats, Vec>& x) {
  if constexpr (Vec == 2) {
    return {spmd::evens(x[0], x[1]), spmd::odds(x[0], x[1])};
  } else if constexpr (Vec == 4) {
    return spmd::transposed_quarters(x.data());
  } else if constexpr (Vec == 8) {
    return spmd::transposed(x);
  } else {
    return x;
  }
}
using four_doubles = spmd::lanes<double, 4>;

/// a0 b0 a2 b2, and a1 b1 a3 b3.
[[gnu::always_inline]] inline four_doubles evens(const four_doubles& a, const four_doubles& b) {
  return four_doubles(spmd::shuffled<4>(a.v, b.v, [](int l) { return l / 2 * 2 + l % 2 * 4; }));
}
[[gnu::always_inline]] inline four_doubles odds(const four_doubles& a, const four_doubles& b) {
  return four_doubles(spmd::shuffled<4>(a.v, b.v, [](int l) { return l / 2 * 2 + 1 + l % 2 * 4; }));
}

template <int Vec>
[[gnu::always_inline]] inline auto by_element(const std::array<spmd::lanes<double, 8>, Vec>& x) {
  static_assert(Vec <= 2);
  std::array<spmd::lanes<double, 8>, Vec> result = x;
  if constexpr (Vec == 2) {
    const auto a = spmd::lower(x[0]), b = spmd::upper(x[0]), c = spmd::lower(x[1]), d = spmd::upper(x[1]);
    result = {spmd::joined(evens(a, b), evens(c, d)), spmd::joined(odds(a, b), odds(c, d))};
  }
  return result;
}
template <int Vec, class A>
requires(!spmd::is_lanes<A>) const std::array<A, Vec>& by_element(const std::array<A, Vec>& x) {
  return x;
}

/// One value per work-item, from the order that by_element<Vec> left. At most 1 shuffle per register.
template <int Vec>
[[gnu::always_inline]] inline eight_floats in_item_order(const eight_floats& x) {
  if constexpr (Vec == 2) {
    return eight_floats(spmd::shuffled<8>(x.v, [](int l) { return l / 4 * 2 + l % 4 / 2 * 4 + l % 2; }));
  } else if constexpr (Vec == 4) {
    return eight_floats(spmd::shuffled<8>(x.v, [](int l) { return l / 2 + l % 2 * 4; }));
  } else {
    return x;
  }
}
[[gnu::always_inline]] inline four_doubles middle_swapped(const four_doubles& x) {
  return four_doubles(spmd::shuffled<4>(x.v, [](int l) { return l % 2 * 2 + l / 2; }));
}
template <int Vec>
[[gnu::always_inline]] inline spmd::lanes<double, 8> in_item_order(const spmd::lanes<double, 8>& x) {
  if constexpr (Vec == 2) {
    return spmd::joined(middle_swapped(spmd::lower(x)), middle_swapped(spmd::upper(x)));
  } else {
    return x;
  }
}

/// Neighbours of `a` added up, and those of `b`, 64 bits of each in turn (of doubles one sum, of floats two).
template <int N>
[[gnu::always_inline]] inline spmd::lanes<float, N> neighbours_added(const spmd::lanes<float, N>& a,
                                                                     const spmd::lanes<float, N>& b) {
  return spmd::evens(a, b) + spmd::odds(a, b);
}
[[gnu::always_inline]] inline four_doubles neighbours_added(const four_doubles& a, const four_doubles& b) {
  return evens(a, b) + odds(a, b);
}

/// Lanes 2l and 2l + 1 added into lane l.
template <class T, int N>
[[gnu::always_inline]] inline spmd::lanes<T, N / 2> added_neighbours(const spmd::lanes<T, N>& x) {
  const auto low = spmd::lower(x), high = spmd::upper(x);
  if constexpr (N * sizeof(T) > 64) {
    return spmd::joined(added_neighbours(low), added_neighbours(high));
  } else if constexpr (std::same_as<T, float>) {
    return in_item_order<2>(neighbours_added(low, high));
  } else {
    return middle_swapped(neighbours_added(low, high));
  }
}

/// The sum over a sub-group that work-item 0 has after x += (x of work-item l + d) for d = 1, 2, 4, 8, 16:
/// absent work-items count as 0, and so must lanes of a gang that are none. Only work-item 0's result means
/// anything.
template <class Item, class T, int N>
[[gnu::always_inline]] inline T sum_from_neighbours(const sycl::sub_group<Item>& group,
                                                    const spmd::lanes<T, N>& x) {
  if constexpr (N * sizeof(T) > 32) {
    return sum_from_neighbours(group, added_neighbours(x));
  } else if constexpr (std::same_as<T, float>) {
    const auto pairs = neighbours_added(x, x), quads = neighbours_added(pairs, pairs);
    return quads.v[0] + quads.v[4];
  } else {
    const auto pairs = neighbours_added(x, x);
    return pairs.v[0] + pairs.v[2];
  }
}
template <class Item, class T>
requires(!spmd::is_lanes<T>) T sum_from_neighbours(const sycl::sub_group<Item>& group, T x) {
  const int own = group.get_local_linear_id();
  for (int d = 1; d < group.size; d *= 2) {
    const T neighbour = sycl::shift_group_left(group, x, d);
    if (own + d < group.get_local_linear_range()) x += neighbour;
  }
  return x;
}

/// Two values per work-item, such as a sum and a sum of squares, each summed over a sub-group as
/// sum_from_neighbours does, for work-item 0. A gang's values come in registers of eight work-items, in the
/// order that by_element<Vec> left.
template <int Vec, class Item>
[[gnu::always_inline]] inline std::array<float, 2> two_sums_from_neighbours(const sycl::sub_group<Item>&,
                                                                            std::array<eight_floats, 4> x,
                                                                            std::array<eight_floats, 4> y) {
  using four_floats = spmd::lanes<float, 4>;
  four_floats sums;  // x, y
  if constexpr (Vec == 4) {
    // Neighbours stand in a register's two halves.
    const auto by_pair = [](const std::array<eight_floats, 4>& z) [[gnu::always_inline]] {
      const auto halves_added = [](const eight_floats& a, const eight_floats& b) [[gnu::always_inline]] {
        return spmd::low_quarters(a, b) + spmd::high_quarters(a, b);
      };
      return neighbours_added(halves_added(z[0], z[2]), halves_added(z[1], z[3]));
    };
    const auto eights = neighbours_added(by_pair(x), by_pair(y));  // x0 x1 y0 y1 | x2 x3 y2 y3
    const auto sixteens = neighbours_added(eights, eights);
    sums = spmd::lower(sixteens) + spmd::upper(sixteens);
  } else {
    const auto by_eight = [](const std::array<eight_floats, 4>& z) [[gnu::always_inline]] {
      const auto pairs = [](const eight_floats& a, const eight_floats& b) [[gnu::always_inline]] {
        return neighbours_added(in_item_order<Vec>(a), in_item_order<Vec>(b));
      };
      const auto quads = neighbours_added(pairs(z[0], z[1]), pairs(z[2], z[3]));
      return spmd::lower(quads) + spmd::upper(quads);
    };
    const four_floats sixteens = neighbours_added(by_eight(x), by_eight(y));
    sums = neighbours_added(sixteens, sixteens);
  }
  return {sums.v[0], sums.v[1]};
}
template <int Vec, class Item>
[[gnu::always_inline]] inline std::array<double, 2> two_sums_from_neighbours(
    const sycl::sub_group<Item>& group, const std::array<spmd::lanes<double, 8>, 4>& x,
    const std::array<spmd::lanes<double, 8>, 4>& y) {
  const auto sum = [&](const auto& z) [[gnu::always_inline]] {
    using sixteen = spmd::lanes<double, 16>;
    return sum_from_neighbours(
        group, spmd::lanes<double, 32>(sixteen(in_item_order<Vec>(z[0]), in_item_order<Vec>(z[1])),
                                       sixteen(in_item_order<Vec>(z[2]), in_item_order<Vec>(z[3]))));
  };
  return {sum(x), sum(y)};
}
template <int Vec, class Item, class A>
std::array<A, 2> two_sums_from_neighbours(const sycl::sub_group<Item>& group, const std::array<A, 1>& x,
                                          const std::array<A, 1>& y) {
  return {sum_from_neighbours(group, x[0]), sum_from_neighbours(group, y[0])};
}

}  // namespace tolvane
