#pragma once
// The CPU's operators on half and bfloat16. Many have no kernel for them; those run in float, and their
// results are rounded once.

#include <ATen/core/dispatch/Dispatcher.h>

#include "operator_traits.hpp"

namespace kelvor_xpu {

/// Calls the CPU's kernel of `op` on the arguments on top of `stack`, all of them on the CPU, in float where
/// reduced types need it.
void call_cpu(const c10::OperatorHandle& op, const OperatorTraits& traits, torch::jit::Stack* stack);

}  // namespace kelvor_xpu
