#pragma once

#include "sycl/launch.hpp"

namespace tolvane {

/// What a kernel that consists of phases declares as first_gang_works.
inline constexpr bool first_gang_runs_phases = spmd::gang_lanes > 1;

/// Runs body(item) for all work-items of the group, and then a barrier. What lives from one phase to the next
/// stands in memory. Where gangs have many lanes, the first one goes through the body for all gangs in turn:
/// such a loop costs less than switching between gangs at barriers.
template <class Item, class Body>
[[gnu::always_inline]] inline void phase(const Item& item, const Body& body) {
  if constexpr (Item::lanes == 1) {
    body(item);
    item.barrier();
  } else {
    const int gangs = (item.group_size() + Item::lanes - 1) / Item::lanes;
    for (int gang = 0; gang < gangs; ++gang) body(Item(item.group_state(), gang));
  }
}

/// The same for the work-items of the first sub-group only.
template <class Item, class Body>
[[gnu::always_inline]] inline void first_sub_group_phase(const Item& item, const Body& body) {
  if (item.first() < Item::sub_group_size) body(item);
  if constexpr (Item::lanes == 1) item.barrier();
}

}  // namespace tolvane
