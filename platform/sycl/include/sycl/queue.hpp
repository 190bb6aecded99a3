#pragma once
// sycl::queue and sycl::handler. A queue is in order, and submit() runs the kernel before it returns: nothing
// later on the queue can overtake it.

#include <cstddef>
#include <utility>

#include "sycl/device.hpp"
#include "sycl/launch.hpp"
#include "sycl/range.hpp"

namespace sycl {

class queue;

/// The command group: reserves local memory and holds the one kernel of a submission.
class handler {
 public:
  /// Runs `kernel` over the index space. It is a functor with `template <class Item> void operator()(const
  /// Item&) const`, called once per gang; what else it may declare is told in sycl/launch.hpp.
  template <int D, class Kernel>
  void parallel_for(const nd_range<D>& range, const Kernel& kernel) {
    host::check_range(range, device_.get_info<info::device::max_work_group_size>());
    submission_ = host::record_submission(typeid(Kernel), D, host::padded(range.get_global_range()),
                                          host::padded(range.get_local_range()));
    host::launch(range, kernel, local_bytes_);
  }

  /// The same over a plain range, whose groups are the runtime's business: the kernel gets an `item`.
  template <int D, class Kernel>
  void parallel_for(const range<D>& sizes, const Kernel& kernel) {
    host::check_range(D, host::padded(sizes));
    submission_ = host::record_submission(typeid(Kernel), D, host::padded(sizes), {0, 0, 0});
    if (sizes.size() > 0) host::launch(sizes, kernel);
  }

  /// Takes `bytes` of every work-group's local memory and returns their offset.
  std::size_t reserve_local(std::size_t bytes) {
    const std::size_t offset = local_bytes_;
    local_bytes_ += (bytes + host::local_alignment - 1) / host::local_alignment * host::local_alignment;
    return offset;
  }

 private:
  friend class queue;
  explicit handler(const device& where) : device_(where) {}

  const device& device_;
  std::size_t local_bytes_ = 0;
  std::uint64_t submission_ = 0;
};

class queue {
 public:
  explicit queue(device where = device()) : device_(std::move(where)) {}

  const device& get_device() const { return device_; }
  bool is_in_order() const { return true; }
  void wait() const {}

  /// Builds the command group and runs its kernel. What the kernel throws is thrown here.
  template <class CommandGroup>
  event submit(CommandGroup&& group) {
    handler command(device_);
    std::forward<CommandGroup>(group)(command);
    return event(command.submission_);
  }

 private:
  device device_;
};

}  // namespace sycl
