#pragma once
// Small operators on every step of a model, without the detour by CPU tensors: the CPU's own loops run on the
// memory of xpu tensors.

#include <torch/library.h>

namespace kelvor_xpu {

/// The types that the small operators know.
inline bool is_float(c10::ScalarType type) {
  return type == at::kFloat || type == at::kHalf || type == at::kBFloat16 || type == at::kDouble;
}

/// Registers arithmetic and elementary functions, as new tensors and in place. Floating-point operands of one
/// type, and numbers, are done here; all else goes to the CPU's operator.
void register_pointwise(torch::Library& aten);

}  // namespace kelvor_xpu
