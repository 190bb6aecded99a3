#pragma once
// sycl::device, sycl::event and the information descriptors that the kernels' launchers read.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "sycl/submissions.hpp"

namespace sycl {

namespace info::device {
struct name {
  using return_type = std::string;
};
struct max_work_group_size {
  using return_type = std::size_t;
};
}  // namespace info::device

/// The CPU as a SYCL device. It calls itself by any name and refuses work-groups larger than it is told to.
class device {
 public:
  explicit device(std::string name = "Host CPU", std::size_t max_work_group_size = 1024);

  template <class Param>
  typename Param::return_type get_info() const {
    if constexpr (std::is_same_v<Param, info::device::name>) {
      return state_->name;
    } else {
      static_assert(std::is_same_v<Param, info::device::max_work_group_size>,
                    "not a known device descriptor");
      return state_->max_work_group_size;
    }
  }

 private:
  struct state {
    std::string name;
    std::size_t max_work_group_size;
  };
  std::shared_ptr<const state> state_;
};

/// A submission that has been made. It is complete from the start, since `submit` runs the kernel before it
/// returns; `wait` counts, so that tests can tell the waiting form of submission from the plain one.
class event {
 public:
  event() = default;
  explicit event(std::uint64_t submission) : submission_(submission) {}
  void wait() { host::record_wait(submission_); }
  /// The submission's number in host::submissions(), 0 for an event of none.
  std::uint64_t submission() const { return submission_; }

 private:
  std::uint64_t submission_ = 0;
};

}  // namespace sycl
