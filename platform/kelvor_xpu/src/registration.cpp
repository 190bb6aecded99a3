// The one place where the device enters PyTorch, when the library is loaded. Nothing registered here is ever
// destroyed: tensors, and threads that use them, may outlive static destructors.

#include <ATen/ops/_reshape_alias_native.h>
#include <ATen/ops/as_strided_native.h>
#include <ATen/ops/resize_native.h>
#include <ATen/ops/set_native.h>
#include <ATen/ops/unfold_native.h>
#include <ATen/ops/view_native.h>
#include <torch/library.h>

#include <algorithm>
#include <sycl/cpu.hpp>

#include "allocator.hpp"
#include "attention.hpp"
#include "cat.hpp"
#include "copy.hpp"
#include "factories.hpp"
#include "fallback.hpp"
#include "guard.hpp"
#include "hooks.hpp"
#include "kelvor_xpu/registered.h"
#include "linear.hpp"
#include "pinned_memory.hpp"
#include "pointwise.hpp"
#include "recurrent_cells.hpp"

namespace kelvor_xpu {
namespace {

/// Operators that PyTorch would take apart into others, or refuse, on a device without a kernel for them; the
/// CPU's kernels are faster and handle more cases.
constexpr const char* named_fallbacks[] = {
    "convolution", "_convolution",           "convolution_backward", "mse_loss",      "smooth_l1_loss",
    "huber_loss",  "native_layer_norm",      "native_group_norm",    "addr",          "_stack",
    "stack",       "native_channel_shuffle", "mish_backward",        "silu_backward",
};

void register_operators(torch::Library& aten) {
  aten.impl("empty.memory_format", TORCH_FN(empty));
  aten.impl("empty_strided", TORCH_FN(empty_strided));
  aten.impl("_efficientzerotensor", TORCH_FN(efficient_zeros));
  aten.impl("copy_", TORCH_FN(copy_));
  aten.impl("_local_scalar_dense", TORCH_FN(local_scalar_dense));
  aten.impl("mm.out", TORCH_FN(mm_out));
  aten.impl("addmm.out", TORCH_FN(addmm_out));
  register_pointwise(aten);
  register_cat(aten);
  aten.impl("_thnn_fused_gru_cell", TORCH_FN(gru_cell));
  aten.impl("_thnn_fused_gru_cell_backward", TORCH_FN(gru_cell_backward));
  aten.impl("_thnn_fused_lstm_cell", TORCH_FN(lstm_cell));
  aten.impl("_thnn_fused_lstm_cell_backward_impl", TORCH_FN(lstm_cell_backward));
  aten.impl("scaled_dot_product_attention", TORCH_FN(attention));
  aten.impl("_scaled_dot_product_fused_attention_overrideable", TORCH_FN(fused_attention));
  aten.impl("_scaled_dot_product_fused_attention_overrideable_backward", TORCH_FN(fused_attention_backward));
  // These only look at sizes and at the storage, whose allocator is ours.
  aten.impl("as_strided", TORCH_FN(at::native::as_strided_tensorimpl));
  aten.impl("view", TORCH_FN(at::native::view));
  aten.impl("_reshape_alias", TORCH_FN(at::native::_reshape_alias));
  aten.impl("unfold", TORCH_FN(at::native::unfold));
  aten.impl("resize_", TORCH_FN(at::native::resize_));
  aten.impl("set_.source_Storage_storage_offset", TORCH_FN(at::native::set_storage_cpu_));
  for (const char* name : named_fallbacks) {
    aten.impl(name, torch::CppFunction::makeFromBoxedFunction<&fallback>());
  }
}

bool has_kernel(const c10::OperatorName& name, c10::DispatchKey key) {
  const auto op = c10::Dispatcher::singleton().findSchema(name);
  return op.has_value() && op->hasKernelForDispatchKey(key);
}
bool gives_views(const c10::OperatorName& name) {
  const auto returns = c10::Dispatcher::singleton()
                           .findSchemaOrThrow(name.name.c_str(), name.overload_name.c_str())
                           .schema()
                           .returns();
  return std::ranges::any_of(returns, [](const c10::Argument& r) { return r.alias_info() != nullptr; });
}

/// Where the CPU has a kernel for an operator that returns new tensors, PyTorch's default for other devices
/// allocates the result and calls the operator's out= form. One call of the CPU's kernel is faster, unless
/// that form is the device's own.
void register_whole_operators(torch::Library& aten) {
  for (const c10::OperatorName& name : c10::Dispatcher::singleton().getAllOpNames()) {
    if (name.name.starts_with("aten::") &&
        has_kernel(name, c10::DispatchKey::CompositeExplicitAutogradNonFunctional) &&
        has_kernel(name, c10::DispatchKey::CPU) && !has_kernel(name, c10::DispatchKey::XPU) &&
        !has_kernel({name.name, "out"}, c10::DispatchKey::XPU) && !gives_views(name)) {
      aten.impl(toString(name).c_str(), torch::CppFunction::makeFromBoxedFunction<&fallback>());
    }
  }
}

class Silence final : public c10::WarningHandler {
  void process(const c10::Warning&) override {}
};

/// The one kernel that takes another's place, which PyTorch would warn of. It hands on what is not the
/// device's.
void register_batched_attention() {
  Silence silence;
  const c10::WarningUtils::WarningHandlerGuard hold(&silence);
  auto* aten = new torch::Library(torch::Library::IMPL, "aten", c10::DispatchKey::FuncTorchVmapMode, __FILE__,
                                  __LINE__);
  aten->impl("scaled_dot_product_attention", TORCH_FN(batched_attention));
}

const bool entered = [] {
  // Somebody else's XPU device has precedence, and a second copy of this library changes nothing.
  if (c10::impl::hasDeviceGuardImpl(c10::DeviceType::XPU) || !sycl::host::unsupported_cpu().empty())
    return false;
  c10::impl::DeviceGuardImplRegistrar(c10::DeviceType::XPU, new Guard);
  c10::SetAllocator(c10::DeviceType::XPU, device_allocator());
  register_hooks();
  register_pinned_memory();
  auto* aten = new torch::Library(torch::Library::IMPL, "aten", c10::DispatchKey::XPU, __FILE__, __LINE__);
  register_operators(*aten);
  register_whole_operators(*aten);
  auto* autograd =
      new torch::Library(torch::Library::IMPL, "aten", c10::DispatchKey::AutogradXPU, __FILE__, __LINE__);
  autograd->impl("scaled_dot_product_attention", TORCH_FN(attention));
  register_batched_attention();
  auto* others = new torch::Library(torch::Library::IMPL, "_", c10::DispatchKey::XPU, __FILE__, __LINE__);
  others->fallback(torch::CppFunction::makeFromBoxedFunction<&fallback>());
  return true;
}();

}  // namespace

bool registered() {
  return entered;
}

}  // namespace kelvor_xpu
