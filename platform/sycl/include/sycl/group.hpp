#pragma once
// Sub-group shuffles and reductions over groups, under SYCL's names. A kernel that uses them declares
// uses_sub_group and sub_group_size: a gang is then exactly one sub-group, and values move between registers
// or through a few words of the stack. In the reading with one lane per gang they pass through memory,
// between gangs that take turns.

#include <algorithm>
#include <concepts>
#include <limits>

#include "spmd/spmd.hpp"

namespace sycl {

template <class T = void>
struct plus {
  template <class V>
  [[gnu::always_inline]] V operator()(const V& a, const V& b) const {
    return a + b;
  }
  template <class V>
  static V identity() {
    return V(0.0f);
  }
};
template <class T = void>
struct maximum {
  template <class V>
  [[gnu::always_inline]] V operator()(const V& a, const V& b) const {
    return spmd::select(a < b, b, a);
  }
  template <class V>
  static V identity() {
    return V(-std::numeric_limits<float>::infinity());
  }
};
template <class T = void>
struct minimum {
  template <class V>
  [[gnu::always_inline]] V operator()(const V& a, const V& b) const {
    return spmd::select(b < a, b, a);
  }
  template <class V>
  static V identity() {
    return V(std::numeric_limits<float>::infinity());
  }
};

/// The sub-group that a gang is, or is part of.
template <class Item>
class sub_group {
 public:
  static_assert(Item::sub_group_size > 0, "the kernel must declare uses_sub_group and sub_group_size");
  static_assert(Item::lanes == 1 || Item::lanes == Item::sub_group_size);
  static constexpr int size = Item::sub_group_size;

  explicit sub_group(const Item& item) : item_(item) {}
  const Item& item() const { return item_; }
  /// Index of the sub-group in its work-group; and how many there are.
  int get_group_linear_id() const { return item_.first() / size; }
  int get_group_linear_range() const { return (item_.group_size() + size - 1) / size; }
  /// Work-items in it: fewer than `size` in the last one of a work-group that is no multiple of it.
  int get_local_linear_range() const {
    return std::min(size, item_.group_size() - get_group_linear_id() * size);
  }
  /// Index of the work-item in the sub-group, per lane.
  auto get_local_linear_id() const {
    return spmd::ramp<Item::lanes>(item_.first() % size, Item::lanes == 1 ? 1 : item_.live());
  }

 private:
  const Item& item_;
};

template <class Item>
sub_group<Item> this_sub_group(const Item& item) {
  return sub_group<Item>(item);
}

namespace host {

/// Passes every work-item's value through memory and returns what `pick` finds there: the way of shuffles
/// where gangs have one lane. `pick` gets the values of the sub-group.
template <class Item, class T, class Pick>
T exchange(const sub_group<Item>& group, T value, const Pick& pick) {
  static_assert(sizeof(T) <= 8);
  const Item& item = group.item();
  const int first = group.get_group_linear_id() * group.size;
  const int count = group.get_local_linear_range();
  std::byte* words = item.group_state().exchange() + first * 8;
  std::memcpy(words + (item.first() - first) * 8, &value, sizeof value);
  item.group_state().ring().barrier_among(first, count);
  T values[Item::sub_group_size]{};
  for (int l = 0; l < count; ++l) std::memcpy(&values[l], words + l * 8, sizeof(T));
  const T result = pick(values);
  item.group_state().ring().barrier_among(first, count);
  return result;
}

}  // namespace host

/// The value of lane (own index XOR mask); mask is uniform. 1 shuffle per register and at most as many moves.
template <class Item, class T, int N>
[[gnu::always_inline]] inline spmd::lanes<T, N> permute_group_by_xor(const sub_group<Item>&,
                                                                     const spmd::lanes<T, N>& x, int mask) {
  return spmd::permuted_by_xor(x, mask);
}
template <class Item, class T>
requires(!spmd::is_lanes<T>) T permute_group_by_xor(const sub_group<Item>& group, T x, int mask) {
  const int own = group.get_local_linear_id();
  return host::exchange(group, x, [&](const T* values) {
    return values[std::min(own ^ mask, group.get_local_linear_range() - 1)];
  });
}

/// The value of lane `index`, which varies and lies within the sub-group. About 8 ns for 32 lanes.
template <class Item, class T, int N>
[[gnu::always_inline]] inline spmd::lanes<T, N> select_from_group(const sub_group<Item>&,
                                                                  const spmd::lanes<T, N>& x,
                                                                  const spmd::lanes<std::int32_t, N>& index) {
  return spmd::picked(x, index);
}
template <class Item, class T>
requires(!spmd::is_lanes<T>) T select_from_group(const sub_group<Item>& group, T x, std::int32_t index) {
  return host::exchange(group, x, [&](const T* values) { return values[index]; });
}

/// The value of lane (own index + delta); lanes without such a partner keep their own.
template <class Item, class T, int N>
[[gnu::always_inline]] inline spmd::lanes<T, N> shift_group_left(const sub_group<Item>& group,
                                                                 const spmd::lanes<T, N>& x, int delta) {
  const auto own = group.get_local_linear_id();
  return spmd::picked(x, spmd::select(own < group.get_local_linear_range() - delta, own + delta, own));
}
template <class Item, class T>
requires(!spmd::is_lanes<T>) T shift_group_left(const sub_group<Item>& group, T x, int delta) {
  const int own = group.get_local_linear_id();
  return host::exchange(group, x, [&](const T* values) {
    return values[own + delta < group.get_local_linear_range() ? own + delta : own];
  });
}

/// `op` over the values of the sub-group, the same for all its work-items. The order is a tree's: entry l
/// takes in entry l + stride, for stride size / 2, …, 1, with absent work-items as the identity.
template <class Item, class V, class Op>
[[gnu::always_inline]] inline spmd::element<V> reduce_over_group(const sub_group<Item>& group, const V& x,
                                                                 Op op) {
  using T = spmd::element<V>;
  constexpr int size = Item::sub_group_size;
  const int count = group.get_local_linear_range();
  if constexpr (spmd::is_lanes<V>) {
    const V present =
        count == size ? x : spmd::select(spmd::ramp<size>(0) < count, x, V(Op::template identity<T>()));
    return spmd::tree_reduce(present, op);
  } else {
    return host::exchange(group, x, [&](T* values) {
      for (int l = count; l < size; ++l) values[l] = Op::template identity<T>();
      for (int stride = size / 2; stride >= 1; stride /= 2) {
        for (int l = 0; l < stride; ++l) values[l] = op(values[l], values[l + stride]);
      }
      return values[0];
    });
  }
}

/// `op` over the values of the whole work-group, the same for all its work-items: the sub-groups' results, or
/// where the kernel declares none the gangs', combined from the first to the last. Contains work-group
/// barriers.
template <class Item, class V, class Op>
[[gnu::always_inline]] inline spmd::element<V> reduce_over_group(const Item& item, const V& x, Op op) {
  using T = spmd::element<V>;
  constexpr int part = Item::sub_group_size > 0 ? Item::sub_group_size : Item::lanes;
  T own;
  if constexpr (Item::sub_group_size > 0) {
    own = reduce_over_group(sub_group<Item>(item), x, op);
  } else if constexpr (Item::lanes > 1) {
    const V present = item.live() == part
                          ? x
                          : spmd::select(spmd::ramp<part>(0) < item.live(), x, V(Op::template identity<T>()));
    own = spmd::tree_reduce(present, op);
  } else {
    own = x;
  }
  const int parts = (item.group_size() + part - 1) / part;
  if (parts == 1) return own;
  std::byte* words = item.group_state().exchange() + static_cast<std::size_t>(item.group_size()) * 8;
  std::memcpy(words + item.first() / part * 8, &own, sizeof own);
  item.barrier();
  T total;
  std::memcpy(&total, words, sizeof total);
  for (int p = 1; p < parts; ++p) {
    T next;
    std::memcpy(&next, words + p * 8, sizeof next);
    total = op(total, next);
  }
  item.barrier();
  return total;
}

}  // namespace sycl
