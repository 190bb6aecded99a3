// kelvor_xpu._C: what the Python package kelvor_xpu asks of the device library. Typed and documented there.

#include <c10/core/impl/DeviceGuardImplInterface.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <stdexcept>
#include <sycl/cpu.hpp>
#include <sycl/submissions.hpp>

#include "kelvor_xpu/memory.h"
#include "kelvor_xpu/xpu.h"

namespace py = pybind11;

namespace {

const c10::Device device(c10::DeviceType::XPU, 0);

const c10::impl::DeviceGuardImplInterface* guard() {
  return c10::impl::getDeviceGuardImpl(c10::DeviceType::XPU);
}

c10::Stream stream_of(c10::StreamId id) {
  return c10::Stream(c10::Stream::UNSAFE, device, id);
}

std::string device_name() {
  return xpu::get_queue_from_stream(guard()->getDefaultStream(device))
      .get_device()
      .get_info<sycl::info::device::name>();
}

/// (id, kernel, global_size, local_size, waited, label)
py::tuple as_tuple(const sycl::host::submission& entry) {
  const auto sizes = [&](const std::array<std::size_t, 3>& size) {
    py::tuple result(entry.dimensions);
    for (int i = 0; i < entry.dimensions; ++i) result[i] = size[i];
    return result;
  };
  return py::make_tuple(entry.id, entry.kernel, sizes(entry.global), sizes(entry.local), entry.waited,
                        entry.label);
}

py::list submissions() {
  py::list result;
  for (const auto& entry : sycl::host::submissions()) result.append(as_tuple(entry));
  return result;
}

}  // namespace

PYBIND11_MODULE(_C, module) {
  py::module_::import("torch");
  if (const std::string reason = sycl::host::unsupported_cpu(); !reason.empty())
    throw py::import_error(reason);
  module.def("device_name", device_name);
  module.def("device_count", [] { return static_cast<int>(guard()->deviceCount()); });

  module.def("memory_allocated", [] { return kelvor_xpu::memory_statistics().live_bytes; });
  module.def("max_memory_allocated", [] { return kelvor_xpu::memory_statistics().peak_bytes; });
  module.def("memory_cached", [] { return kelvor_xpu::memory_statistics().cached_bytes; });
  module.def("reset_peak_memory_stats", kelvor_xpu::reset_peak_bytes);
  module.def("empty_cache", kelvor_xpu::empty_cache);

  module.def("current_stream", [] { return guard()->getStream(device).id(); });
  module.def("set_stream", [](c10::StreamId id) { return guard()->exchangeStream(stream_of(id)).id(); });
  module.def("new_stream", [] { return guard()->getStreamFromGlobalPool(device, false).id(); });

  module.def("submissions", submissions);
  module.def("clear_submissions", sycl::host::clear_submissions);
  module.def("submission_count", sycl::host::submission_count);
  module.def("wait_count", sycl::host::wait_count);
}
