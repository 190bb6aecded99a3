#include <stdexcept>
#include <sycl/submissions.hpp>
#include <utility>

#include "kelvor_xpu/xpu.h"
#include "settings.hpp"

namespace xpu {

sycl::queue& get_queue_from_stream(c10::Stream stream) {
  if (stream.device_type() != c10::DeviceType::XPU) {
    throw std::invalid_argument("get_queue_from_stream needs a stream of an xpu device, but this one is of " +
                                stream.device().str());
  }
  // A kernel is complete when submit() returns, so that one queue serves all streams.
  static sycl::queue& queue = *new sycl::queue(
      sycl::device(kelvor_xpu::settings().device_name, kelvor_xpu::settings().max_work_group_size));
  return queue;
}

void profiler_record(std::string label, sycl::event& event) {
  sycl::host::record_label(event.submission(), label);
}

}  // namespace xpu
