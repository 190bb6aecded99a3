#pragma once
// One boxed kernel for every operator of PyTorch that has no kernel of its own on the xpu device.

#include <ATen/core/dispatch/Dispatcher.h>

namespace kelvor_xpu {

/// Runs `op` with the CPU's kernel on the memory of its xpu arguments and leaves xpu results on `stack`.
void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack);

/// The operator of that name and overload, both as in the schema: for `fall_back`, to be looked up once.
inline c10::OperatorHandle operator_named(const char* name, const char* overload) {
  return c10::Dispatcher::singleton().findSchemaOrThrow(name, overload);
}

/// The same for a kernel with a signature of its own that has a case it leaves to the CPU. The arguments are
/// in the schema's order, and the results are those written in place.
template <class... Arguments>
void fall_back(const c10::OperatorHandle& op, Arguments&&... arguments) {
  torch::jit::Stack stack;
  stack.reserve(sizeof...(arguments));
  (stack.emplace_back(std::forward<Arguments>(arguments)), ...);
  fallback(op, &stack);
}

/// The same where the result is one new tensor.
template <class... Arguments>
at::Tensor fall_back_for_result(const c10::OperatorHandle& op, Arguments&&... arguments) {
  torch::jit::Stack stack;
  stack.reserve(sizeof...(arguments));
  (stack.emplace_back(std::forward<Arguments>(arguments)), ...);
  fallback(op, &stack);
  return std::move(stack.back()).toTensor();
}

}  // namespace kelvor_xpu
