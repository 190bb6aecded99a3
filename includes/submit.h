#pragma once
// Submission of a kernel, reported to the profiler under the one label. Expansions choose their form in
// dequantize.h.

#include <c10/core/Device.h>
#include <kelvor_xpu/xpu.h>

#include <utility>

#include "device_frame.h"

namespace tolvane {

/// Plain form: submits the command group to the current stream of `device` and returns while it may still
/// run.
template <class CommandGroup>
void submit(c10::Device device, CommandGroup&& group) {
  sycl::event event = current_queue(device).submit(std::forward<CommandGroup>(group));
  xpu::profiler_record("devq_kernel", event);
}

}  // namespace tolvane
