#pragma once
// Submission of a kernel, reported to the profiler under the one label.

#include <c10/core/Device.h>
#include <kelvor_xpu/xpu.h>

#include <utility>

#include "device_frame.h"

namespace tolvane {

/// Whether the host goes on while the kernel may still run, or waits for it.
enum class submission_form { plain, waiting };

/// Submits the command group to the current stream of `device`.
template <submission_form Form = submission_form::plain, class CommandGroup>
void submit(c10::Device device, CommandGroup&& group) {
  sycl::event event = current_queue(device).submit(std::forward<CommandGroup>(group));
  if constexpr (Form == submission_form::waiting) event.wait();
  xpu::profiler_record("devq_kernel", event);
}

}  // namespace tolvane
