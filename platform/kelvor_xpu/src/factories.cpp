#include "factories.hpp"

#include <ATen/EmptyTensor.h>

#include "allocator.hpp"
#include "guard.hpp"

namespace kelvor_xpu {
namespace {

constexpr c10::DispatchKeySet xpu_keys(c10::DispatchKey::XPU);

void check_options(std::optional<c10::Layout> layout, std::optional<c10::Device> device,
                   std::optional<bool> pin_memory) {
  check_device(device.value_or(c10::Device(c10::DeviceType::XPU)));
  TORCH_CHECK(!pin_memory.value_or(false),
              "Only dense CPU tensors can be pinned, not tensors of the xpu device");
  TORCH_CHECK_NOT_IMPLEMENTED(layout.value_or(c10::Layout::Strided) == c10::Layout::Strided,
                              "The xpu device has strided tensors only, but layout ", *layout,
                              " was asked for");
}

class NoMemory final : public c10::Allocator {
 public:
  c10::DataPtr allocate(std::size_t) override { return {nullptr, c10::Device(c10::DeviceType::XPU, 0)}; }
  void copy_data(void*, const void*, std::size_t) const override {}
};

}  // namespace

at::Tensor empty(at::IntArrayRef size, std::optional<c10::ScalarType> dtype,
                 std::optional<c10::Layout> layout, std::optional<c10::Device> device,
                 std::optional<bool> pin_memory, std::optional<c10::MemoryFormat> memory_format) {
  check_options(layout, device, pin_memory);
  return at::detail::empty_generic(size, device_allocator(), xpu_keys, c10::dtype_or_default(dtype),
                                   memory_format);
}

at::Tensor empty_strided(at::IntArrayRef size, at::IntArrayRef stride, std::optional<c10::ScalarType> dtype,
                         std::optional<c10::Layout> layout, std::optional<c10::Device> device,
                         std::optional<bool> pin_memory) {
  check_options(layout, device, pin_memory);
  return at::detail::empty_strided_generic(size, stride, device_allocator(), xpu_keys,
                                           c10::dtype_or_default(dtype));
}

at::Tensor efficient_zeros(at::IntArrayRef size, std::optional<c10::ScalarType> dtype,
                           std::optional<c10::Layout> layout, std::optional<c10::Device> device,
                           std::optional<bool> pin_memory) {
  check_options(layout, device, pin_memory);
  static auto* allocator = new NoMemory;
  const c10::DispatchKeySet keys = xpu_keys | c10::DispatchKeySet(c10::DispatchKey::ZeroTensor);
  return at::detail::empty_generic(size, allocator, keys, c10::dtype_or_default(dtype), std::nullopt);
}

}  // namespace kelvor_xpu
