// The derivative of the linear layer, so that what stands before a packed weight can be trained.

#include <ATen/core/grad_mode.h>
#include <ATen/ops/matmul.h>
#include <torch/csrc/autograd/custom_function.h>

#include <utility>

#include "linear_xpu_kernel.h"

namespace tolvane {
namespace {

using torch::autograd::AutogradContext;
using torch::autograd::variable_list;

struct linear_function : torch::autograd::Function<linear_function> {
  static at::Tensor forward(AutogradContext* context, const at::Tensor& input, const at::Tensor& weight,
                            std::int64_t qtype, std::int64_t size_hint) {
    at::Tensor result = linear_xpu_forward_new(input, weight, static_cast<int>(qtype), size_hint);
    context->save_for_backward({weight});
    context->saved_data["qtype"] = qtype;
    context->saved_data["state_size"] = input.size(1);
    return result;
  }

  static variable_list backward(AutogradContext* context, const variable_list& gradients) {
    const at::Tensor& gradient = gradients[0];
    const at::Tensor weight = context->get_saved_variables()[0];
    const at::Tensor dense =
        linear_xpu_expanded(gradient, weight, static_cast<int>(context->saved_data["qtype"].toInt()),
                            context->saved_data["state_size"].toInt());
    return {at::matmul(gradient, dense), {}, {}, {}};
  }
};

}  // namespace

at::Tensor linear_xpu_forward_differentiable(at::Tensor input, at::Tensor weight, int qtype,
                                             std::int64_t size_hint) {
  if (input.requires_grad() && at::GradMode::is_enabled()) {
    return linear_function::apply(input, weight, std::int64_t{qtype}, size_hint);
  }
  return linear_xpu_forward_new(std::move(input), std::move(weight), qtype, size_hint);
}

}  // namespace tolvane
