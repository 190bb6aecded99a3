#include "fallback.hpp"

#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/core/stack.h>

#include <string_view>
#include <vector>

#include "alias.hpp"
#include "generator.hpp"
#include "guard.hpp"
#include "lifting.hpp"
#include "operator_traits.hpp"

namespace kelvor_xpu {
namespace {

/// Turns the xpu arguments of one call into CPU arguments.
class ArgumentConverter {
 public:
  ArgumentConverter(const c10::OperatorHandle& op, Aliases& aliases) : op_(op), aliases_(aliases) {}

  c10::IValue convert(const c10::IValue& value, std::size_t position, Role role) {
    if (value.isTensor()) return convert(value.toTensor(), position, role);
    if (value.isTensorList()) {
      std::vector<at::Tensor> list = value.toTensorVector();
      for (at::Tensor& tensor : list) tensor = convert(tensor, position, role);
      return list;
    }
    if (value.isOptionalTensorList()) return convert_indices(value);
    if (value.isDevice()) return convert(value.toDevice());
    if (value.isGenerator()) return cpu_generator(value.toGenerator());
    if (value.isStorage() && value.toStorage().device_type() == c10::DeviceType::XPU) {
      return aliases_.alias(value.toStorage());
    }
    return value;
  }

  bool results_on_cpu() const { return results_on_cpu_; }

 private:
  at::Tensor convert(const at::Tensor& tensor, std::size_t position, Role role) {
    if (!on_xpu(tensor)) {
      check_other_device(tensor, position, role);
      return tensor;
    }
    TORCH_CHECK_NOT_IMPLEMENTED(!tensor.is_quantized() && tensor.has_storage(), op_.operator_name(),
                                ": the xpu device has dense tensors without quantizer only, but argument '",
                                argument_name(position), "' is ", tensor.toString());
    return aliases_.alias(tensor);
  }

  /// Lists with holes hold indices, which may stay on the CPU.
  c10::IValue convert_indices(const c10::IValue& value) {
    c10::List<std::optional<at::Tensor>> list;
    for (const std::optional<at::Tensor>& tensor : value.toOptionalTensorVector()) {
      list.push_back(tensor.has_value() && on_xpu(*tensor) ? aliases_.alias(*tensor) : tensor);
    }
    return list;
  }

  c10::IValue convert(c10::Device device) {
    if (device.type() != c10::DeviceType::XPU) {
      results_on_cpu_ = true;
      return device;
    }
    check_device(device);
    return c10::Device(c10::DeviceType::CPU);
  }

  /// A CPU tensor without dimensions stands for a number and mixes freely, unless it is to be written.
  void check_other_device(const at::Tensor& tensor, std::size_t position, Role role) const {
    if (!tensor.defined() || (tensor.dim() == 0 && tensor.is_cpu() && role == Role::input)) return;
    const std::string_view name = op_.schema().name();
    if (name == "aten::set_" || name == "aten::_pin_memory") return;
    TORCH_CHECK(false,
                "Expected all tensors to be on the same device, but found at least two devices, xpu:0 and ",
                tensor.device(), "! (when checking argument for argument ", argument_name(position),
                " in method ", name, ")");
  }

  const std::string& argument_name(std::size_t position) const {
    return op_.schema().arguments()[position].name();
  }

  const c10::OperatorHandle& op_;
  Aliases& aliases_;
  bool results_on_cpu_ = false;
};

c10::IValue to_xpu(const c10::IValue& value, Aliases& aliases) {
  if (value.isTensor()) return aliases.to_xpu(value.toTensor());
  if (value.isTensorList()) {
    std::vector<at::Tensor> list = value.toTensorVector();
    for (at::Tensor& tensor : list) tensor = aliases.to_xpu(tensor);
    return list;
  }
  return value;
}

}  // namespace

void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack) {
  const OperatorTraits& traits = traits_of(op);
  Aliases aliases;
  ArgumentConverter converter(op, aliases);
  const std::size_t below = stack->size() - traits.roles.size();
  for (const std::size_t i : traits.carriers) {
    c10::IValue& argument = (*stack)[below + i];
    argument = converter.convert(argument, i, traits.roles[i]);
  }
  {
    const at::AutoDispatchBelowADInplaceOrView below_autograd;
    call_cpu(op, traits, stack);
  }
  if (traits.writes) aliases.carry_back();
  if (converter.results_on_cpu()) return;
  for (std::size_t i = below; i < stack->size(); ++i) (*stack)[i] = to_xpu((*stack)[i], aliases);
}

}  // namespace kelvor_xpu
