#pragma once
// What a gang knows of its place: the ids of its work-items, which differ per lane, and those of its
// work-group, which do not.

#include <algorithm>
#include <cstddef>

#include "sycl/fiber.hpp"
#include "sycl/lanes.hpp"
#include "sycl/range.hpp"

namespace sycl {

namespace host {

/// The work-group that a thread is running.
template <int D>
class group_state {
 public:
  group_state(const range<D>& groups, const range<D>& local, std::byte* memory, gang_ring& ring)
      : groups_(groups),
        local_(local),
        items_(static_cast<int>(local.size())),
        memory_(memory),
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

  const range<D>& groups() const { return groups_; }
  const range<D>& local() const { return local_; }
  const range<D>& id() const { return id_; }
  std::size_t linear_id() const { return linear_; }
  int items() const { return items_; }
  std::byte* memory() const { return memory_; }
  gang_ring& ring() const { return ring_; }

 private:
  range<D> groups_;
  range<D> local_;
  range<D> id_;
  std::size_t linear_ = 0;
  int items_;
  std::byte* memory_;
  gang_ring& ring_;
};

}  // namespace host

/// A gang of `Lanes` work-items that stand next to each other in their work-group. Where fewer are left, the
/// surplus lanes repeat the last work-item: what they read and write is what that one does.
template <int D, int Lanes>
class nd_item {
 public:
  static constexpr int lanes = Lanes;

  nd_item(const host::group_state<D>& group, int gang)
      : group_(group), first_(gang * Lanes), live_(std::min(Lanes, group.items() - first_)) {}

  std::size_t get_group(int dimension) const { return group_.id()[dimension]; }
  std::size_t get_group_linear_id() const { return group_.linear_id(); }
  std::size_t get_group_range(int dimension) const { return group_.groups()[dimension]; }
  std::size_t get_local_range(int dimension) const { return group_.local()[dimension]; }
  int group_size() const { return group_.items(); }

  /// Linear id in the work-group of the gang's first work-item, and how many lanes are work-items of their
  /// own.
  int first() const { return first_; }
  int live() const { return live_; }

  auto get_local_linear_id() const { return spmd::ramp<Lanes>(first_, live_); }
  auto get_local_id(int dimension) const {
    auto id = get_local_linear_id();
    if constexpr (D > 1) {
      for (int d = D - 1; d > dimension; --d) id = id / static_cast<int>(group_.local()[d]);
      if (dimension > 0) id = id % static_cast<int>(group_.local()[dimension]);
    }
    return id;
  }

  /// Work-group barrier. All memory of the group is coherent after it, whichever fence is asked for.
  void barrier() const { group_.ring().barrier(); }

  /// The work-group's local memory; local_accessor gives typed parts of it.
  std::byte* local_memory() const { return group_.memory(); }

 private:
  const host::group_state<D>& group_;
  int first_;
  int live_;
};

/// An array of work-group local memory.
template <class T>
class local_accessor {
 public:
  template <class Handler>
  local_accessor(std::size_t count, Handler& command)
      : offset_(command.reserve_local(count * sizeof(T))), count_(count) {}

  std::size_t size() const { return count_; }
  /// The array of the work-group that `item` belongs to.
  template <class Item>
  T* get(const Item& item) const {
    return reinterpret_cast<T*>(item.local_memory() + offset_);
  }

 private:
  std::size_t offset_;
  std::size_t count_;
};

}  // namespace sycl
