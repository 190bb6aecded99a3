#pragma once
// What a gang knows of its place: the ids of its work-items, which differ per lane, and those of its
// work-group, which do not.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "spmd/convert.hpp"
#include "sycl/fiber.hpp"
#include "sycl/range.hpp"

namespace sycl {

namespace access {
/// Which memory a barrier makes coherent. On the host it is all memory, whichever is asked for.
enum class fence_space { local_space, global_space, global_and_local };
}  // namespace access

namespace host {

/// The work-group that a thread is running.
template <int D>
class group_state {
 public:
  group_state(const range<D>& groups, const range<D>& local, std::byte* memory, std::byte* exchange,
              gang_ring& ring)
      : groups_(groups),
        local_(local),
        items_(static_cast<int>(local.size())),
        memory_(memory),
        exchange_(exchange),
        ring_(ring) {}

  /// Goes to the work-group of this linear index.
  void move_to(std::size_t linear) {
    linear_ = linear;
    for (int d = D - 1; d > 0; --d) {
      id_[d] = linear % groups_[d];
      linear /= groups_[d];
    }
    id_[0] = linear;
  }

  /// Goes on to the next work-group.
  void advance() {
    ++linear_;
    for (int d = D - 1; d > 0; --d) {
      if (++id_[d] < groups_[d]) return;
      id_[d] = 0;
    }
    ++id_[0];
  }

  const range<D>& groups() const { return groups_; }
  const range<D>& local() const { return local_; }
  const range<D>& id() const { return id_; }
  std::size_t linear_id() const { return linear_; }
  int items() const { return items_; }
  std::byte* memory() const { return memory_; }
  std::byte* exchange() const { return exchange_; }
  gang_ring& ring() const { return ring_; }

 private:
  range<D> groups_;
  range<D> local_;
  range<D> id_;
  std::size_t linear_ = 0;
  int items_;
  std::byte* memory_;
  // Two words of 8 bytes per work-item, for values that gangs pass to each other: first those within
  // sub-groups, then those of sub-groups within the work-group.
  std::byte* exchange_;
  gang_ring& ring_;
};

/// Coordinate `dimension` of the linear ids `id` in a space of these sizes. Ids are int or std::int64_t, per
/// lane.
template <int D, class Id>
[[gnu::always_inline]] inline Id coordinate(Id id, const range<D>& sizes, int dimension) {
  using scalar = spmd::element<Id>;
  for (int d = D - 1; d > dimension; --d) id = id / static_cast<scalar>(sizes[d]);
  if (dimension > 0) id = id % static_cast<scalar>(sizes[dimension]);
  return id;
}

}  // namespace host

/// A gang of `Lanes` work-items that stand next to each other in their work-group. Where fewer are left, the
/// surplus lanes repeat the last work-item: what they read and write is what that one does. `SubGroup` is the
/// required sub-group size of a kernel that uses sub-group operations, else 0.
template <int D, int Lanes, int SubGroup = 0>
class nd_item {
 public:
  static constexpr int lanes = Lanes;
  static constexpr int sub_group_size = SubGroup;

  nd_item(const host::group_state<D>& group, int gang)
      : group_(group), first_(gang * Lanes), live_(std::min(Lanes, group.items() - first_)) {}

  // Uniform: the same for all work-items of the group.
  std::size_t get_group(int dimension) const { return group_.id()[dimension]; }
  std::size_t get_group_linear_id() const { return group_.linear_id(); }
  std::size_t get_group_range(int dimension) const { return group_.groups()[dimension]; }
  std::size_t get_local_range(int dimension) const { return group_.local()[dimension]; }
  std::size_t get_global_range(int dimension) const {
    return get_group_range(dimension) * get_local_range(dimension);
  }
  int group_size() const { return group_.items(); }

  /// Linear id in the work-group of the gang's first work-item, and how many lanes are work-items of their
  /// own.
  int first() const { return first_; }
  int live() const { return live_; }

  // Varying: one id per lane. Local ids are int, global ids std::int64_t.
  [[gnu::always_inline]] auto get_local_linear_id() const { return spmd::ramp<Lanes>(first_, live_); }
  [[gnu::always_inline]] auto get_local_id(int dimension) const {
    return host::coordinate(get_local_linear_id(), group_.local(), dimension);
  }
  [[gnu::always_inline]] auto get_global_id(int dimension) const {
    const auto origin = static_cast<std::int64_t>(get_group(dimension) * get_local_range(dimension));
    return spmd::convert<std::int64_t>(get_local_id(dimension)) + origin;
  }

  /// Work-group barrier.
  void barrier(access::fence_space = access::fence_space::global_and_local) const { group_.ring().barrier(); }

  /// The work-group's local memory; local_accessor gives typed parts of it.
  std::byte* local_memory() const { return group_.memory(); }
  const host::group_state<D>& group_state() const { return group_; }

 private:
  const host::group_state<D>& group_;
  int first_;
  int live_;
};

/// A gang of work-items of a plain range, in which there are no groups, no barriers and no local memory.
/// Surplus lanes repeat the last work-item.
template <int D, int Lanes>
class item {
 public:
  static constexpr int lanes = Lanes;

  item(const range<D>& sizes, std::int64_t first, int live) : sizes_(sizes), first_(first), live_(live) {}

  std::size_t get_range(int dimension) const { return sizes_[dimension]; }
  std::int64_t first() const { return first_; }
  int live() const { return live_; }
  [[gnu::always_inline]] auto get_linear_id() const {
    return spmd::convert<std::int64_t>(spmd::ramp<Lanes>(0, live_)) + first_;
  }
  [[gnu::always_inline]] auto get_id(int dimension) const {
    return host::coordinate(get_linear_id(), sizes_, dimension);
  }

 private:
  const range<D>& sizes_;
  std::int64_t first_;
  int live_;
};

/// An array of work-group local memory, of one or two dimensions.
template <class T, int D = 1>
class local_accessor {
 public:
  template <class Handler>
  local_accessor(range<D> sizes, Handler& command)
      : offset_(command.reserve_local(sizes.size() * sizeof(T))), sizes_(sizes) {}

  std::size_t size() const { return sizes_.size(); }
  const range<D>& get_range() const { return sizes_; }
  /// The array of the work-group that `item` belongs to; row-major.
  template <class Item>
  T* get(const Item& item) const {
    return reinterpret_cast<T*>(item.local_memory() + offset_);
  }

 private:
  std::size_t offset_;
  range<D> sizes_;
};

}  // namespace sycl
