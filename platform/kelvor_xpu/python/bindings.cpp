// kelvor_xpu._C: what the Python package kelvor_xpu asks of the device library. Typed and documented there.

#include <ATen/detail/XPUHooksInterface.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <torch/csrc/Generator.h>

#include <stdexcept>
#include <sycl/cpu.hpp>
#include <sycl/submissions.hpp>

#include "kelvor_xpu/limit_memory.h"
#include "kelvor_xpu/registered.h"
#include "kelvor_xpu/xpu.h"

namespace py = pybind11;

namespace {

sycl::device xpu_device() {
  const c10::Device device(c10::DeviceType::XPU, 0);
  const auto* guard = c10::impl::getDeviceGuardImpl(c10::DeviceType::XPU);
  return xpu::get_queue_from_stream(guard->getDefaultStream(device)).get_device();
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
  module.def("device_name", [] { return xpu_device().get_info<sycl::info::device::name>(); });
  module.def("max_work_group_size",
             [] { return xpu_device().get_info<sycl::info::device::max_work_group_size>(); });
  module.def("target", sycl::host::chosen_target);
  module.def("registered", kelvor_xpu::registered);
  module.def("hooks_seen", [] { return at::detail::getXPUHooks().hasXPU(); });
  module.def("limit_memory", kelvor_xpu::limit_memory);
  module.def("default_generator", [] {
    return py::reinterpret_steal<py::object>(THPGenerator_Wrap(at::detail::getXPUHooks().getDefaultGenerator()));
  });
  module.def("submissions", submissions);
  module.def("clear_submissions", sycl::host::clear_submissions);
  module.def("submission_count", sycl::host::submission_count);
  module.def("wait_count", sycl::host::wait_count);
}
