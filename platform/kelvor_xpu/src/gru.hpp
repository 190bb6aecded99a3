#pragma once
// The GRU cell that PyTorch expects of a device as one operator, and for which the CPU has none.

#include <ATen/core/Tensor.h>

#include <tuple>

namespace kelvor_xpu {

/// One step of torch.nn.GRU. The gates are [batch, 3 * hidden], in the order reset, update, new; `hx` is
/// [batch, hidden]; the biases, [3 * hidden], may be missing. Returns the new hidden state and what the
/// backward function needs.
std::tuple<at::Tensor, at::Tensor> gru_cell(const at::Tensor& input_gates, const at::Tensor& hidden_gates,
                                            const at::Tensor& hx, const c10::optional<at::Tensor>& input_bias,
                                            const c10::optional<at::Tensor>& hidden_bias);

/// Gradients of the arguments of gru_cell, in their order; those of the biases only if there were any.
std::tuple<at::Tensor, at::Tensor, at::Tensor, at::Tensor, at::Tensor> gru_cell_backward(
    const at::Tensor& grad_hy, const at::Tensor& workspace, bool has_bias);

}  // namespace kelvor_xpu
