#pragma once
// Joins small tensors, as every step of a model does, without the detour by CPU tensors.

#include <torch/library.h>

namespace kelvor_xpu {

/// Registers cat. Small contiguous tensors of one floating-point type are joined here by the CPU's
/// own loops; all else, errors included, goes to the CPU's operator.
void register_cat(torch::Library& aten);

}  // namespace kelvor_xpu
