#include "sycl/device.hpp"

#include <stdexcept>
#include <utility>

namespace sycl {

device::device(std::string name, std::size_t max_work_group_size) {
  if (max_work_group_size == 0)
    throw std::invalid_argument("a device's largest work-group size must be at least 1");
  state_ = std::make_shared<const state>(state{std::move(name), max_work_group_size});
}

}  // namespace sycl
