#pragma once
// The CPU's operators on half and bfloat16. Many have no kernel for them; those run in float, and their
// results are rounded once.

#include <ATen/core/dispatch/Dispatcher.h>

#include "operator_traits.hpp"

namespace kelvor_xpu {

/// Whether the CPU's own products in bfloat16 are as fast as ours or faster: where it has instructions for
/// them. Elsewhere they are many times slower than those in float, as the CPU's products in half are
/// everywhere.
bool cpu_multiplies_bfloat16();

/// Calls the CPU's kernel of `op` on the arguments on top of `stack`, all of them on the CPU, in float where
/// reduced types need it.
void call_cpu(const c10::OperatorHandle& op, const OperatorTraits& traits, torch::jit::Stack* stack);

}  // namespace kelvor_xpu
