// The probes that the norm launchers use.

#include <c10/core/DeviceType.h>

#include <limits>

#include "device_frame.h"

int get_workgroup_size() {
  const sycl::queue& queue = tolvane::current_queue(c10::Device(c10::DeviceType::XPU, -1));
  return static_cast<int>(queue.get_device().get_info<sycl::info::device::max_work_group_size>());
}

bool canUse32BitIndexMath(const at::Tensor& t) {
  constexpr std::int64_t limit = std::numeric_limits<std::int32_t>::max();
  const std::int64_t elements = t.numel();
  if (elements == 0) return true;
  if (elements >= limit) return false;
  std::int64_t offset = 0;
  std::int64_t linear_id = elements - 1;
  for (std::int64_t i = t.dim() - 1; i >= 0; --i) {
    offset += (linear_id % t.size(i)) * t.stride(i);
    linear_id /= t.size(i);
  }
  return offset < limit;
}
