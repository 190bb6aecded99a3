#pragma once
// The vocabulary that kernels are written in, beside SYCL's own names: values per work-item, loads in the
// patterns that packed weights need, and sums over a work-group. On a gang of one lane each of them is
// ordinary scalar SYCL code.

#include "spmd/packed.hpp"
#include "spmd/sums.hpp"
#include "sycl/item.hpp"

namespace spmd {

/// A value of its own per work-item of the gang that `Item` stands for.
template <class T, class Item>
using varying = varying_t<T, Item::lanes>;

/// Deals the indices 0 … count - 1 to the work-items of the group in turn and calls body(first, live) for
/// every round: lane l of the gang has index first[r] + l in the r-th of the rounds that the call stands for.
/// `Together` full rounds at a time come in one call, so that their work can overlap; full rounds come with
/// all_lanes and cost no masking. Each first[r] is a multiple of the gang's width.
template <int Together, class Item, class Body>
[[gnu::always_inline]] inline void strided(const Item& item, int count, const Body& body) {
  constexpr int n = Item::lanes;
  const int step = item.group_size();
  int first = item.first();
  for (; first + (Together - 1) * step + n <= count; first += Together * step) {
    std::array<int, Together> rounds;
    unrolled<Together>([&](auto r) { rounds[r] = first + r * step; });
    body(rounds, all_lanes<n>());
  }
  if constexpr (Together > 1) {
    for (; first + n <= count; first += step) body(std::array{first}, all_lanes<n>());
  }
  if constexpr (n > 1) {
    if (first < count) body(std::array{first}, first_lanes{count - first});
  }
}

}  // namespace spmd
