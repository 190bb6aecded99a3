#pragma once

#include <ATen/core/Tensor.h>

namespace tolvane {

/// C[b] = A[b] * B[b] for every b. `A` is [batch, M, N], `B` [batch, N, P], `C` [batch, M, P], all contiguous
/// and of float; C is overwritten and returned. N may be 0, which gives zeros. C may be larger, and of
/// another shape: its first batch * M * P elements are written. Raises c10::Error where one of this fails.
at::Tensor bmm_xpu(at::Tensor A, at::Tensor B, at::Tensor C);

}  // namespace tolvane
