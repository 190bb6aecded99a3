#pragma once
// Matrix products in half and bfloat16: what torch.nn.functional.linear ends in.

#include <ATen/core/Tensor.h>

namespace kelvor_xpu {

/// out = self @ weights, for self [M, K] and weights [K, N]. Up to 256 rows with weights that are the
/// transpose of a matrix with dense rows take the streaming kernels, unless the CPU has instructions for
/// bfloat16; all other cases go to the CPU's operator.
at::Tensor& mm_out(const at::Tensor& self, const at::Tensor& weights, at::Tensor& out);

/// out = beta * self + alpha * (rows @ weights), with `self` expandable to [M, N].
at::Tensor& addmm_out(const at::Tensor& self, const at::Tensor& rows, const at::Tensor& weights,
                      const at::Scalar& beta, const at::Scalar& alpha, at::Tensor& out);

}  // namespace kelvor_xpu
