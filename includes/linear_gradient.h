#pragma once
// The linear layer as autograd sees it.

#include <torch/library.h>

#include "linear_xpu_kernel.h"

namespace tolvane {

/// linear_xpu_forward_new, differentiable with respect to `input` where that requires a gradient: the
/// gradient is that of the result times the expanded weight.
at::Tensor linear_xpu_forward_differentiable(at::Tensor input, at::Tensor weight, int qtype,
                                             std::int64_t size_hint);

/// Gives the operator forward_new its derivative, and adds the operator that this needs: _expanded, the dense
/// weight in any format. The other operators have no derivative, so that their results require none.
void register_linear_gradient(torch::Library& library);

}  // namespace tolvane
