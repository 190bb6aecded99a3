// The derivative of the linear layer, so that what stands before a packed weight can be trained.

#include "linear_gradient.h"

#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/core/dispatch/Dispatcher.h>
#include <ATen/core/grad_mode.h>
#include <ATen/ops/matmul.h>
#include <torch/csrc/autograd/custom_function.h>

#include <utility>

#include "operator_shapes.h"

namespace tolvane {
namespace {

using torch::autograd::AutogradContext;
using torch::autograd::variable_list;
using linear_operator = at::Tensor(const at::Tensor&, const at::Tensor&, std::int64_t, std::int64_t);

// Through the dispatcher, for tracers to see.

at::Tensor call_forward(const at::Tensor& input, const at::Tensor& weight, std::int64_t qtype,
                        std::int64_t size_hint) {
  static const auto op =
      c10::Dispatcher::singleton().findSchemaOrThrow("tolvane::forward_new", "").typed<linear_operator>();
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  return op.call(input, weight, qtype, size_hint);
}

at::Tensor call_expanded(const at::Tensor& like, const at::Tensor& weight, std::int64_t qtype,
                         std::int64_t state_size) {
  static const auto op =
      c10::Dispatcher::singleton().findSchemaOrThrow("tolvane::_expanded", "").typed<linear_operator>();
  return op.call(like, weight, qtype, state_size);
}

struct linear_function : torch::autograd::Function<linear_function> {
  static at::Tensor forward(AutogradContext* context, const at::Tensor& input, const at::Tensor& weight,
                            std::int64_t qtype, std::int64_t size_hint) {
    at::Tensor result = call_forward(input, weight, qtype, size_hint);
    context->save_for_backward({weight});
    context->saved_data["qtype"] = qtype;
    context->saved_data["state_size"] = input.size(1);
    return result;
  }

  static variable_list backward(AutogradContext* context, const variable_list& gradients) {
    const at::Tensor& gradient = gradients[0];
    const at::Tensor weight = context->get_saved_variables()[0];
    const at::Tensor dense = call_expanded(gradient, weight, context->saved_data["qtype"].toInt(),
                                           context->saved_data["state_size"].toInt());
    return {at::matmul(gradient, dense), {}, {}, {}};
  }
};

bool needs_gradient(const at::Tensor& input) {
  return input.requires_grad() && at::GradMode::is_enabled();
}

at::Tensor differentiable(const at::Tensor& input, const at::Tensor& weight, std::int64_t qtype,
                          std::int64_t size_hint) {
  if (needs_gradient(input)) return linear_function::apply(input, weight, qtype, size_hint);
  return call_forward(input, weight, qtype, size_hint);
}

at::Tensor expanded(const at::Tensor& like, const at::Tensor& weight, std::int64_t qtype,
                    std::int64_t state_size) {
  return linear_xpu_expanded(like, weight, static_cast<int>(qtype), state_size);
}

}  // namespace

at::Tensor linear_xpu_forward_differentiable(at::Tensor input, at::Tensor weight, int qtype,
                                             std::int64_t size_hint) {
  if (needs_gradient(input)) return linear_function::apply(input, weight, std::int64_t{qtype}, size_hint);
  return linear_xpu_forward_new(std::move(input), std::move(weight), qtype, size_hint);
}

void register_linear_gradient(torch::Library& library) {
  library.def("_expanded(Tensor like, Tensor weight, int qtype, int state_size) -> Tensor",
              {at::Tag::pt2_compliant_tag});
  library.impl("_expanded", torch::dispatch(c10::DispatchKey::XPU, &expanded));
  library.impl("_expanded", torch::dispatch(c10::DispatchKey::Meta, &shapes::expanded));
  library.impl("forward_new", torch::dispatch(c10::DispatchKey::Autograd, &differentiable));
}

}  // namespace tolvane
