#include "recurrent_cells.hpp"

#include <ATen/TensorOperators.h>
#include <ATen/ops/cat.h>
#include <ATen/ops/sigmoid.h>
#include <ATen/ops/tanh.h>
#include <ATen/ops/zeros_like.h>

namespace kelvor_xpu {
namespace {

at::Tensor with_bias(const at::Tensor& gates, const std::optional<at::Tensor>& bias) {
  return bias.has_value() && bias->defined() ? gates + *bias : gates;
}

/// The derivative of the logistic function at the place where its value is `y`.
at::Tensor sigmoid_slope(const at::Tensor& y) {
  return y * (1 - y);
}

}  // namespace

std::tuple<at::Tensor, at::Tensor> gru_cell(const at::Tensor& input_gates, const at::Tensor& hidden_gates,
                                            const at::Tensor& hx, const std::optional<at::Tensor>& input_bias,
                                            const std::optional<at::Tensor>& hidden_bias) {
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

std::tuple<at::Tensor, at::Tensor, at::Tensor> lstm_cell(const at::Tensor& input_gates,
                                                         const at::Tensor& hidden_gates, const at::Tensor& cx,
                                                         const std::optional<at::Tensor>& input_bias,
                                                         const std::optional<at::Tensor>& hidden_bias) {
  const auto gates = (with_bias(input_gates, input_bias) + with_bias(hidden_gates, hidden_bias)).chunk(4, 1);
  const at::Tensor input = at::sigmoid(gates[0]);
  const at::Tensor forget = at::sigmoid(gates[1]);
  const at::Tensor fresh = at::tanh(gates[2]);
  const at::Tensor output = at::sigmoid(gates[3]);
  const at::Tensor cy = forget * cx + input * fresh;
  return {output * at::tanh(cy), cy, at::cat({input, forget, fresh, output}, 1)};
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> lstm_cell_backward(const std::optional<at::Tensor>& grad_hy,
                                                                  const std::optional<at::Tensor>& grad_cy,
                                                                  const at::Tensor& cx, const at::Tensor& cy,
                                                                  const at::Tensor& workspace,
                                                                  bool has_bias) {
  const auto known = [](const std::optional<at::Tensor>& grad) {
    return grad.has_value() && grad->defined();
  };
  if (!known(grad_hy) && !known(grad_cy)) return {};
  const auto saved = workspace.chunk(4, 1);
  const at::Tensor &input = saved[0], &forget = saved[1], &fresh = saved[2], &output = saved[3];
  const at::Tensor bent = at::tanh(cy);
  const at::Tensor from_hy = known(grad_hy) ? *grad_hy : at::zeros_like(cy);
  at::Tensor grad_cell = from_hy * output * (1 - bent * bent);
  if (known(grad_cy)) grad_cell = grad_cell + *grad_cy;
  const at::Tensor grad_gates =
      at::cat({grad_cell * fresh * sigmoid_slope(input), grad_cell * cx * sigmoid_slope(forget),
               grad_cell * input * (1 - fresh * fresh), from_hy * bent * sigmoid_slope(output)},
              1);
  return {grad_gates, grad_cell * forget, has_bias ? grad_gates.sum(0) : at::Tensor()};
}

}  // namespace kelvor_xpu
