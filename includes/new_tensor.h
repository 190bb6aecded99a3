#pragma once

#include <ATen/core/Tensor.h>

namespace tolvane {

/// A contiguous tensor without values. As at::empty, whose header takes as long to compile as a small kernel.
at::Tensor new_tensor(at::IntArrayRef sizes, const at::TensorOptions& options = {});

}  // namespace tolvane
