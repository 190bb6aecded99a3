#pragma once
// Sums over the vectors that neighbouring work-items hold: each work-item's in the order of its elements, and
// over a sub-group of 32 work-items from neighbour to neighbour. A gang takes eight work-items at a time: it
// reads their vectors as they stand in memory and transposes them.

#include <array>

#include "sycl/group.hpp"
#include "sycl/spmd.hpp"

namespace tolvane {

using eight_floats = spmd::lanes<float, 8>;

/// The 4 x 4 matrices of the lower and of the upper halves of four registers, transposed. 8 shuffles.
[[gnu::always_inline]] inline std::array<eight_floats, 4> transposed_halves(const eight_floats* x) {
  const __m256 ab0 = _mm256_unpacklo_ps(x[0].v, x[1].v), ab1 = _mm256_unpackhi_ps(x[0].v, x[1].v);
  const __m256 cd0 = _mm256_unpacklo_ps(x[2].v, x[3].v), cd1 = _mm256_unpackhi_ps(x[2].v, x[3].v);
  return {eight_floats(_mm256_shuffle_ps(ab0, cd0, 0x44)), eight_floats(_mm256_shuffle_ps(ab0, cd0, 0xEE)),
          eight_floats(_mm256_shuffle_ps(ab1, cd1, 0x44)), eight_floats(_mm256_shuffle_ps(ab1, cd1, 0xEE))};
}

/// Of eight work-items with Vec elements each, as they stand in memory, element j of all: the lanes are the
/// work-items, in an order that `in_item_order` puts right. 0, 1, 2 or 3 shuffles per register for Vec 1, 2,
/// 4, 8.
template <int Vec>
[[gnu::always_inline]] inline auto by_element(const std::array<eight_floats, Vec>& x) {
  std::array<eight_floats, Vec> result = x;
  if constexpr (Vec == 2) {
    result = {eight_floats(_mm256_shuffle_ps(x[0].v, x[1].v, 0x88)),
              eight_floats(_mm256_shuffle_ps(x[0].v, x[1].v, 0xDD))};
  } else if constexpr (Vec == 4) {
    result = transposed_halves(x.data());
  } else if constexpr (Vec == 8) {
    const auto first = transposed_halves(x.data()), second = transposed_halves(x.data() + 4);
    for (int j = 0; j < 4; ++j) {
      result[j] = eight_floats(_mm256_permute2f128_ps(first[j].v, second[j].v, 0x20));
      result[j + 4] = eight_floats(_mm256_permute2f128_ps(first[j].v, second[j].v, 0x31));
    }
  }
  return result;
}
template <int Vec>
[[gnu::always_inline]] inline auto by_element(const std::array<spmd::lanes<double, 8>, Vec>& x) {
  static_assert(Vec <= 2);
  using four = spmd::lanes<double, 4>;
  std::array<spmd::lanes<double, 8>, Vec> result = x;
  if constexpr (Vec == 2) {
    result[0] = {four(_mm256_unpacklo_pd(x[0].lo.v, x[0].hi.v)),
                 four(_mm256_unpacklo_pd(x[1].lo.v, x[1].hi.v))};
    result[1] = {four(_mm256_unpackhi_pd(x[0].lo.v, x[0].hi.v)),
                 four(_mm256_unpackhi_pd(x[1].lo.v, x[1].hi.v))};
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
    return eight_floats(_mm256_permutevar8x32_ps(x.v, _mm256_setr_epi32(0, 1, 4, 5, 2, 3, 6, 7)));
  } else if constexpr (Vec == 4) {
    return eight_floats(_mm256_permutevar8x32_ps(x.v, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7)));
  } else {
    return x;
  }
}
template <int Vec>
[[gnu::always_inline]] inline spmd::lanes<double, 8> in_item_order(const spmd::lanes<double, 8>& x) {
  using four = spmd::lanes<double, 4>;
  if constexpr (Vec == 2) {
    return {four(_mm256_permute4x64_pd(x.lo.v, 0xD8)), four(_mm256_permute4x64_pd(x.hi.v, 0xD8))};
  } else {
    return x;
  }
}
/// Lanes 2l and 2l + 1 added into lane l.
template <class T, int N>
[[gnu::always_inline]] inline spmd::lanes<T, N / 2> added_neighbours(const spmd::lanes<T, N>& x) {
  if constexpr (N > 2 * spmd::native_lanes<T>) {
    return {added_neighbours(x.lo), added_neighbours(x.hi)};
  } else {
    __m256d sums;  // 64 bits of the lower register and 64 of the upper one in turn
    if constexpr (std::same_as<T, float>) {
      sums = _mm256_castps_pd(_mm256_hadd_ps(x.lo.v, x.hi.v));
    } else {
      sums = _mm256_hadd_pd(x.lo.v, x.hi.v);
    }
    return spmd::lanes<T, N / 2>(reinterpret_cast<spmd::native<T>>(_mm256_permute4x64_pd(sums, 0xD8)));
  }
}

/// The sum over a sub-group that work-item 0 has after x += (x of work-item l + d) for d = 1, 2, 4, 8, 16:
/// absent work-items count as 0, and so must lanes of a gang that are none. Only work-item 0's result means
/// anything.
template <class Item, class T, int N>
[[gnu::always_inline]] inline T sum_from_neighbours(const sycl::sub_group<Item>& group,
                                                    const spmd::lanes<T, N>& x) {
  if constexpr (N > spmd::native_lanes<T>) {
    return sum_from_neighbours(group, added_neighbours(x));
  } else if constexpr (std::same_as<T, float>) {
    const __m256 pairs = _mm256_hadd_ps(x.v, x.v);
    const __m256 quads = _mm256_hadd_ps(pairs, pairs);
    return quads[0] + quads[4];
  } else {
    const __m256d pairs = _mm256_hadd_pd(x.v, x.v);
    return pairs[0] + pairs[2];
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
  __m128 sums;  // x, y
  if constexpr (Vec == 4) {
    // Neighbours stand in a register's two halves.
    const auto by_pair = [](const std::array<eight_floats, 4>& z) [[gnu::always_inline]] {
      const auto halves_added = [](__m256 a, __m256 b) [[gnu::always_inline]] {
        return _mm256_permute2f128_ps(a, b, 0x20) + _mm256_permute2f128_ps(a, b, 0x31);
      };
      return _mm256_hadd_ps(halves_added(z[0].v, z[2].v), halves_added(z[1].v, z[3].v));
    };
    const __m256 eights = _mm256_hadd_ps(by_pair(x), by_pair(y));  // x0 x1 y0 y1 | x2 x3 y2 y3
    const __m256 sixteens = _mm256_hadd_ps(eights, eights);
    sums = _mm256_castps256_ps128(sixteens) + _mm256_extractf128_ps(sixteens, 1);
  } else {
    const auto by_eight = [](const std::array<eight_floats, 4>& z) [[gnu::always_inline]] {
      const auto pairs = [](const eight_floats& a, const eight_floats& b) [[gnu::always_inline]] {
        return _mm256_hadd_ps(in_item_order<Vec>(a).v, in_item_order<Vec>(b).v);
      };
      const __m256 quads = _mm256_hadd_ps(pairs(z[0], z[1]), pairs(z[2], z[3]));
      return _mm256_castps256_ps128(quads) + _mm256_extractf128_ps(quads, 1);
    };
    const __m128 sixteens = _mm_hadd_ps(by_eight(x), by_eight(y));
    sums = _mm_hadd_ps(sixteens, sixteens);
  }
  return {sums[0], sums[1]};
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
