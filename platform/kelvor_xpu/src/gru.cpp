#include "gru.hpp"

#include <ATen/TensorOperators.h>
#include <ATen/ops/cat.h>
#include <ATen/ops/sigmoid.h>
#include <ATen/ops/tanh.h>

namespace kelvor_xpu {
namespace {

at::Tensor with_bias(const at::Tensor& gates, const c10::optional<at::Tensor>& bias) {
  return bias.has_value() && bias->defined() ? gates + *bias : gates;
}

/// The derivative of the logistic function at the place where its value is `y`.
at::Tensor sigmoid_slope(const at::Tensor& y) {
  return y * (1 - y);
}

}  // namespace

std::tuple<at::Tensor, at::Tensor> gru_cell(const at::Tensor& input_gates, const at::Tensor& hidden_gates,
                                            const at::Tensor& hx, const c10::optional<at::Tensor>& input_bias,
                                            const c10::optional<at::Tensor>& hidden_bias) {
  const auto from_input = with_bias(input_gates, input_bias).chunk(3, 1);
  const auto from_hidden = with_bias(hidden_gates, hidden_bias).chunk(3, 1);
  const at::Tensor reset = at::sigmoid(from_input[0] + from_hidden[0]);
  const at::Tensor update = at::sigmoid(from_input[1] + from_hidden[1]);
  const at::Tensor fresh = at::tanh(from_input[2] + reset * from_hidden[2]);
  return {(hx - fresh) * update + fresh, at::cat({reset, update, fresh, hx, from_hidden[2]}, 1)};
}

std::tuple<at::Tensor, at::Tensor, at::Tensor, at::Tensor, at::Tensor> gru_cell_backward(
    const at::Tensor& grad_hy, const at::Tensor& workspace, bool has_bias) {
  if (!grad_hy.defined()) return {};
  const auto saved = workspace.chunk(5, 1);
  const at::Tensor &reset = saved[0], &update = saved[1], &fresh = saved[2], &hx = saved[3],
                   &hidden = saved[4];
  const at::Tensor grad_update = grad_hy * (hx - fresh) * sigmoid_slope(update);
  const at::Tensor grad_fresh = grad_hy * (1 - update) * (1 - fresh * fresh);
  const at::Tensor grad_reset = grad_fresh * hidden * sigmoid_slope(reset);
  const at::Tensor grad_input_gates = at::cat({grad_reset, grad_update, grad_fresh}, 1);
  const at::Tensor grad_hidden_gates = at::cat({grad_reset, grad_update, grad_fresh * reset}, 1);
  return {grad_input_gates, grad_hidden_gates, grad_hy * update,
          has_bias ? grad_input_gates.sum(0) : at::Tensor(),
          has_bias ? grad_hidden_gates.sum(0) : at::Tensor()};
}

}  // namespace kelvor_xpu
