#pragma once
// Running a kernel over an index space: work-groups are dealt to the pool, the work-items of a group run as
// gangs of lanes in lockstep.
//
// What a kernel functor may declare besides its operator():
// - static constexpr int sub_group_size: the required sub-group size, 16 or 32.
// - static constexpr bool uses_sub_group: true if it calls sub-group operations. A gang is then a sub-group,
//   and else as wide as pays, whatever sub-group size is required.
// - static constexpr bool waits: false if no gang ever waits for another one, as at a barrier. The gangs of a
//   group then follow each other without the means to take turns.
// - static constexpr bool first_gang_works: true if the first gang of a group does the work of all. The
//   others are then not run.
// - void prepare(host::arena&): called once per submission, before the work-groups, on the launch's own copy
//   of the functor. It lays out what all groups read in the order of lanes.

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>

#include "sycl/fiber.hpp"
#include "sycl/item.hpp"
#include "sycl/pool.hpp"
#include "sycl/range.hpp"

namespace sycl::host {

inline constexpr std::size_t local_alignment = 64;

/// Memory that lives as long as one submission.
class arena {
 public:
  /// `count` elements, aligned to a cache line, not initialised.
  template <class T>
  T* allocate(std::size_t count) {
    return reinterpret_cast<T*>(take(count * sizeof(T)));
  }
  explicit arena();
  ~arena();
  arena(const arena&) = delete;
  arena& operator=(const arena&) = delete;

 private:
  std::byte* take(std::size_t bytes);
  std::size_t mark_;  // what the thread's memory already held
};

/// Local memory for one work-group of the calling thread: at least `bytes`, aligned to a cache line.
std::byte* local_memory(std::size_t bytes);

/// Throws std::invalid_argument (in words of SYCL's nd_range errors) where the range cannot be run.
void check_range(int dimensions, const std::array<std::size_t, 3>& global,
                 const std::array<std::size_t, 3>& local, std::size_t max_work_group_size);

template <int D>
std::array<std::size_t, 3> padded(const range<D>& sizes) {
  std::array<std::size_t, 3> result{1, 1, 1};
  for (int d = 0; d < D; ++d) result[d] = sizes[d];
  return result;
}

/// Throws std::invalid_argument where a plain range has more work-items than 64-bit ids can count.
void check_range(int dimensions, const std::array<std::size_t, 3>& sizes);

template <int D>
void check_range(const nd_range<D>& range, std::size_t max_work_group_size) {
  check_range(D, padded(range.get_global_range()), padded(range.get_local_range()), max_work_group_size);
}

/// The required sub-group size of a kernel that uses sub-group operations, else 0.
template <class Kernel>
constexpr int sub_group_of() {
  if constexpr (requires { Kernel::uses_sub_group; }) {
    if constexpr (Kernel::uses_sub_group) return Kernel::sub_group_size;
  }
  return 0;
}

/// Lanes of the kernel's gangs: its sub-group where it uses one.
template <class Kernel>
constexpr int gang_lanes() {
  if constexpr (spmd::gang_lanes > 1 && sub_group_of<Kernel>() > 0) return sub_group_of<Kernel>();
  return spmd::gang_lanes;
}

/// Whether a gang of the kernel may have to wait for others.
template <class Kernel>
constexpr bool may_wait() {
  if constexpr (requires { Kernel::waits; }) return Kernel::waits;
  return true;
}

/// Whether the first gang of a group does the work of all.
template <class Kernel>
constexpr bool first_gang_works() {
  if constexpr (requires { Kernel::first_gang_works; }) return Kernel::first_gang_works;
  return false;
}

/// One gang of one work-group: the kernel's whole body is inlined here.
template <int D, class Kernel>
[[gnu::flatten, gnu::noinline]] void run_gang(const Kernel& kernel, const group_state<D>& group, int gang) {
  kernel(nd_item<D, gang_lanes<Kernel>(), sub_group_of<Kernel>()>(group, gang));
}

/// Pieces that `count` steps are dealt in: some twenty per thread give even shares, and each is still a long
/// run through memory.
inline std::size_t piece_of(std::size_t count) {
  return std::max<std::size_t>(1, count / (static_cast<std::size_t>(pool_threads()) * 20));
}

template <int D, class Kernel>
void launch(const nd_range<D>& range, const Kernel& original, std::size_t local_bytes) {
  constexpr int lanes = gang_lanes<Kernel>();
  const sycl::range<D> groups = range.get_group_range();
  const std::size_t count = groups.size();
  if (count == 0) return;
  Kernel kernel = original;
  arena memory;
  if constexpr (requires { kernel.prepare(memory); }) kernel.prepare(memory);

  const auto items = static_cast<int>(range.get_local_range().size());
  const int gangs = first_gang_works<Kernel>() ? 1 : (items + lanes - 1) / lanes;
  const auto run_groups = [&](std::size_t begin, std::size_t end) {
    gang_ring& ring = gang_ring::of_this_thread();
    std::byte* local = local_memory(local_bytes + static_cast<std::size_t>(items) * 16);
    group_state<D> group(groups, range.get_local_range(), local, local + local_bytes, ring);
    struct call {
      const Kernel& kernel;
      const group_state<D>& group;
    } argument{kernel, group};
    group.move_to(begin);
    for (std::size_t g = begin; g < end; ++g, group.advance()) {
      if (gangs == 1 || !may_wait<Kernel>()) {
        ring.run_alone();
        for (int gang = 0; gang < gangs; ++gang) run_gang(kernel, group, gang);
      } else {
        ring.run(
            gangs,
            [](void* object, int gang) {
              const auto& self = *static_cast<call*>(object);
              run_gang(self.kernel, self.group, gang);
            },
            &argument);
      }
    }
  };
  parallel_for_pieces(count, piece_of(count), run_groups);
}

/// One gang of a plain range.
template <int D, class Kernel>
[[gnu::flatten, gnu::noinline]] void run_items(const Kernel& kernel, const item<D, spmd::gang_lanes>& items) {
  kernel(items);
}

/// A plain range: gangs of neighbouring work-items, with no groups between them and the pool.
template <int D, class Kernel>
void launch(const range<D>& sizes, const Kernel& original) {
  constexpr std::int64_t lanes = spmd::gang_lanes;
  const auto count = static_cast<std::int64_t>(sizes.size());
  Kernel kernel = original;
  arena memory;
  if constexpr (requires { kernel.prepare(memory); }) kernel.prepare(memory);
  const auto gangs = static_cast<std::size_t>((count + lanes - 1) / lanes);
  parallel_for_pieces(
      gangs, std::max<std::size_t>(16, piece_of(gangs)), [&](std::size_t begin, std::size_t end) {
        for (auto gang = static_cast<std::int64_t>(begin); gang < static_cast<std::int64_t>(end); ++gang) {
          const std::int64_t first = gang * lanes;
          run_items(kernel, item<D, spmd::gang_lanes>(sizes, first,
                                                      static_cast<int>(std::min(lanes, count - first))));
        }
      });
}

}  // namespace sycl::host
