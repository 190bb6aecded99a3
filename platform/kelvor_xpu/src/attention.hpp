#pragma once
// torch.nn.functional.scaled_dot_product_attention, by the CPU's fused kernels where they take the arguments.

#include <ATen/core/Tensor.h>

#include <array>
#include <tuple>

namespace kelvor_xpu {

/// The operator itself, which PyTorch's own form refuses on a device that it was not built for. Chooses as
/// the CPU does between the fused kernel and the composite form, and leaves gradients to those.
at::Tensor attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                     const std::optional<at::Tensor>& mask, double dropout, bool causal,
                     std::optional<double> scale, bool grouped);

/// The same under torch.vmap, for tensors of any device.
at::Tensor batched_attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                             const std::optional<at::Tensor>& mask, double dropout, bool causal,
                             std::optional<double> scale, bool grouped);

/// The fused forward: the output, the logarithms of the sums, and seven values that only other devices need.
std::tuple<at::Tensor, at::Tensor, at::Tensor, at::Tensor, c10::SymInt, c10::SymInt, at::Tensor, at::Tensor,
           at::Tensor>
fused_attention(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
                const std::optional<at::Tensor>& bias, double dropout, bool causal, bool debug_mask,
                std::optional<double> scale);

/// Gradients of query, key and value. The bias has none: where it needs one, the unfused form is taken.
std::tuple<at::Tensor, at::Tensor, at::Tensor, at::Tensor> fused_attention_backward(
    const at::Tensor& grad, const at::Tensor& query, const at::Tensor& key, const at::Tensor& value,
    const at::Tensor& bias, std::array<bool, 4> wanted, const at::Tensor& output, const at::Tensor& log_sums,
    const at::Tensor& cum_seq_q, const at::Tensor& cum_seq_k, c10::SymInt max_q, c10::SymInt max_k,
    double dropout, bool causal, const at::Tensor& seed, const at::Tensor& offset,
    std::optional<double> scale);

}  // namespace kelvor_xpu
