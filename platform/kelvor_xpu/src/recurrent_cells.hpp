#pragma once
// The cells of torch.nn.GRU and torch.nn.LSTM, which PyTorch expects of a device as one operator each, and
// for which the CPU has none.

#include <ATen/core/Tensor.h>

#include <tuple>

namespace kelvor_xpu {

/// One step of torch.nn.GRU. The gates are [batch, 3 * hidden], in the order reset, update, new; `hx` is
/// [batch, hidden]; the biases, [3 * hidden], may be missing. Returns the new hidden state and what the
/// backward function needs.
std::tuple<at::Tensor, at::Tensor> gru_cell(const at::Tensor& input_gates, const at::Tensor& hidden_gates,
                                            const at::Tensor& hx, const std::optional<at::Tensor>& input_bias,
                                            const std::optional<at::Tensor>& hidden_bias);

/// Gradients of the arguments of gru_cell, in their order; those of the biases only if there were any.
std::tuple<at::Tensor, at::Tensor, at::Tensor, at::Tensor, at::Tensor> gru_cell_backward(
    const at::Tensor& grad_hy, const at::Tensor& workspace, bool has_bias);

/// One step of torch.nn.LSTM. The gates are [batch, 4 * hidden], in the order input, forget, new, output;
/// `cx` is [batch, hidden]; the biases, [4 * hidden], may be missing. Returns the new hidden state, the new
/// cell state and what the backward function needs.
std::tuple<at::Tensor, at::Tensor, at::Tensor> lstm_cell(const at::Tensor& input_gates,
                                                         const at::Tensor& hidden_gates, const at::Tensor& cx,
                                                         const std::optional<at::Tensor>& input_bias,
                                                         const std::optional<at::Tensor>& hidden_bias);

/// Gradients of the gates (the same for both), of `cx`, and of the biases if there were any.
std::tuple<at::Tensor, at::Tensor, at::Tensor> lstm_cell_backward(const std::optional<at::Tensor>& grad_hy,
                                                                  const std::optional<at::Tensor>& grad_cy,
                                                                  const at::Tensor& cx, const at::Tensor& cy,
                                                                  const at::Tensor& workspace, bool has_bias);

}  // namespace kelvor_xpu
