#pragma once
// What a module with kernels of its own asks of the `xpu` device. Including this header and calling one of
// the two functions is also what makes the linker keep libkelvor-xpu, and loading the library is what
// registers the device.

#include <c10/core/Stream.h>

#include <string>
#include <sycl/queue.hpp>

#define KELVOR_XPU_API __attribute__((visibility("default")))

namespace xpu {

/// The in-order queue behind `stream`. It lives as long as the process. Throws std::invalid_argument if the
/// stream is not one of the xpu device, and if a KELVOR_XPU_* variable is malformed.
KELVOR_XPU_API sycl::queue& get_queue_from_stream(c10::Stream stream);

/// Writes `label` into the entry of the event's submission (sycl::host::submissions()). Does not wait.
KELVOR_XPU_API void profiler_record(std::string label, sycl::event& event);

}  // namespace xpu
