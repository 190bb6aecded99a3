#pragma once
// One boxed kernel for every operator of PyTorch that has no kernel of its own on the xpu device.

#include <ATen/core/dispatch/Dispatcher.h>

namespace kelvor_xpu {

/// Runs `op` with the CPU's kernel on the memory of its xpu arguments and leaves xpu results on `stack`.
void fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack);

/// The same for a kernel with a signature of its own that has a case it leaves to the CPU. `overload` is as
/// in the schema, the arguments are in the schema's order, and the results are those written in place.
template <class... Arguments>
void fall_back(const char* name, const char* overload, Arguments&&... arguments) {
  const auto op = c10::Dispatcher::singleton().findSchemaOrThrow(name, overload);
  torch::jit::Stack stack;
  (stack.emplace_back(std::forward<Arguments>(arguments)), ...);
  fallback(op, &stack);
}

}  // namespace kelvor_xpu
