#include "attention.hpp"

#include <ATen/SDPBackend.h>
#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/ops/_fused_sdp_choice.h>
#include <ATen/ops/_scaled_dot_product_attention_math.h>
#include <ATen/ops/_scaled_dot_product_flash_attention_for_cpu.h>
#include <ATen/ops/_scaled_dot_product_flash_attention_for_cpu_backward.h>
#include <ATen/ops/_scaled_dot_product_fused_attention_overrideable.h>
#include <ATen/ops/scaled_dot_product_attention_native.h>
#include <ATen/ops/zeros_like.h>

#include <limits>

#include "alias.hpp"
#include "token_attention.hpp"

namespace kelvor_xpu {
namespace {

std::optional<at::Tensor> alias_if_defined(Aliases& aliases, const std::optional<at::Tensor>& tensor) {
  if (!tensor.has_value() || !tensor->defined()) return std::nullopt;
  return on_xpu(*tensor) ? aliases.alias(*tensor) : *tensor;
}

/// Whether the tensor is memory of the device, and not a stand-in that records or transforms what is done
/// with it.
bool is_plain(const at::Tensor& tensor) {
  return on_xpu(tensor) && tensor.has_storage() && !tensor.key_set().has_any(c10::python_ks) &&
         !tensor.key_set().has(c10::DispatchKey::FuncTorchGradWrapper);
}

/// Whether the CPU would take its fused kernel.
bool takes_fused(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                 const std::optional<at::Tensor>& mask, double dropout, bool causal,
                 std::optional<double> scale, bool grouped) {
  if (!is_plain(query) || !is_plain(key) || !is_plain(value)) return false;
  Aliases aliases;
  const auto alias = [&](const at::Tensor& tensor) {
    return aliases.alias(tensor).set_requires_grad(tensor.requires_grad());
  };
  std::optional<at::Tensor> cpu_mask = alias_if_defined(aliases, mask);
  if (cpu_mask.has_value() && mask->requires_grad()) cpu_mask->set_requires_grad(true);
  const auto choice = at::_fused_sdp_choice(alias(query), alias(key), alias(value), cpu_mask, dropout, causal,
                                            scale, grouped);
  return choice == static_cast<std::int64_t>(at::SDPBackend::flash_attention);
}

/// What is to be added to the products: a boolean mask keeps what is true.
std::optional<at::Tensor> as_bias(const std::optional<at::Tensor>& mask, c10::ScalarType type) {
  if (!mask.has_value() || !mask->defined()) return std::nullopt;
  if (mask->scalar_type() != at::kBool) return mask;
  return at::zeros_like(*mask, type)
      .masked_fill_(mask->logical_not(), -std::numeric_limits<double>::infinity());
}

}  // namespace

at::Tensor attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                     const std::optional<at::Tensor>& mask, double dropout, bool causal,
                     std::optional<double> scale, bool grouped) {
  const bool masks = (mask.has_value() && mask->defined()) || causal;
  if (!masks && dropout == 0 && is_plain(query) && is_plain(key) && is_plain(value)) {
    if (std::optional<at::Tensor> out = token_attention(query, key, value, scale, grouped)) return *out;
  }
  const std::optional<at::Tensor> bias = as_bias(mask, query.scalar_type());
  if (takes_fused(query, key, value, mask, dropout, causal, scale, grouped)) {
    return std::get<0>(at::_scaled_dot_product_fused_attention_overrideable(query, key, value, bias, dropout,
                                                                            causal, false, scale));
  }
  return std::get<0>(at::_scaled_dot_product_attention_math(query, key, value, bias, dropout, causal,
                                                            std::nullopt, scale, grouped));
}

at::Tensor batched_attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                             const std::optional<at::Tensor>& mask, double dropout, bool causal,
                             std::optional<double> scale, bool grouped) {
  return query.is_xpu() ? attention(query, key, value, mask, dropout, causal, scale, grouped)
                        : at::native::scaled_dot_product_attention(query, key, value, mask, dropout, causal,
                                                                   scale, grouped);
}

std::tuple<at::Tensor, at::Tensor, at::Tensor, at::Tensor, c10::SymInt, c10::SymInt, at::Tensor, at::Tensor,
           at::Tensor>
fused_attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                const std::optional<at::Tensor>& bias, double dropout, bool causal, bool,
                std::optional<double> scale) {
  Aliases aliases;
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  const auto [output, log_sums] = at::_scaled_dot_product_flash_attention_for_cpu(
      aliases.alias(query), aliases.alias(key), aliases.alias(value), dropout, causal,
      alias_if_defined(aliases, bias), scale);
  const at::Tensor none;
  return {aliases.to_xpu(output),
          aliases.to_xpu(log_sums),
          none,
          none,
          query.sym_size(2),
          key.sym_size(2),
          none,
          none,
          none};
}

std::tuple<at::Tensor, at::Tensor, at::Tensor, at::Tensor> fused_attention_backward(
    const at::Tensor& grad, const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
    const at::Tensor& bias, std::array<bool, 4>, const at::Tensor& output, const at::Tensor& log_sums,
    const at::Tensor&, const at::Tensor&, c10::SymInt, c10::SymInt, double dropout, bool causal,
    const at::Tensor&, const at::Tensor&, std::optional<double> scale) {
  if (!grad.defined()) return {};
  Aliases aliases;
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  const auto [grad_query, grad_key, grad_value] = at::_scaled_dot_product_flash_attention_for_cpu_backward(
      aliases.alias(grad), aliases.alias(query), aliases.alias(key), aliases.alias(value),
      aliases.alias(output), aliases.alias(log_sums), dropout, causal, alias_if_defined(aliases, bias),
      scale);
  return {aliases.to_xpu(grad_query), aliases.to_xpu(grad_key), aliases.to_xpu(grad_value), at::Tensor()};
}

}  // namespace kelvor_xpu
