#pragma once
// Small operators on every step of a model, without the detour by CPU tensors: the CPU's own loops run on the
// memory of xpu tensors.

#include <torch/library.h>

namespace kelvor_xpu {

/// Registers arithmetic and elementary functions, as new tensors and in place. Floating-point operands of one
/// type, and numbers, are done here; all else goes to the CPU's operator.
void register_pointwise(torch::Library& aten);

}  // namespace kelvor_xpu
