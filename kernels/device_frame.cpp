#include "device_frame.h"

#include <c10/core/DeviceType.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>
#include <c10/util/Exception.h>
#include <kelvor_xpu/xpu.h>

#include <array>
#include <utility>

namespace tolvane {

int classify_gpu(const std::string& name) {
  static constexpr std::array<std::pair<const char*, int>, 5> classes = {{{"Rack GPU Summit", gpu_summit},
                                                                          {"Vela(TM) A", gpu_vela_a},
                                                                          {"Vela(TM)", gpu_vela},
                                                                          {"IGX", gpu_igx},
                                                                          {"Rack GPU Ridge", gpu_ridge}}};
  for (const auto& [part, type] : classes) {
    if (name.find(part) != std::string::npos) return type;
  }
  return gpu_other;
}

sycl::queue& current_queue(c10::Device device) {
  const auto slot = static_cast<std::size_t>(device.type());
  const c10::impl::DeviceGuardImplInterface* guard = c10::impl::device_guard_impl_registry[slot].load();
  TORCH_CHECK(guard != nullptr, "PyTorch is not linked with support for ", device.type(), " devices");
  return xpu::get_queue_from_stream(guard->getStream(device));
}

int current_gpu_type() {
  static const int type = initialize_gpu_type();
  return type;
}

}  // namespace tolvane

int initialize_gpu_type() {
  const sycl::queue& queue = tolvane::current_queue(c10::Device(c10::DeviceType::XPU, -1));
  return tolvane::classify_gpu(queue.get_device().get_info<sycl::info::device::name>());
}
