#pragma once
// Copies between tensors, one of them at least on the xpu device.

#include <ATen/core/Tensor.h>

namespace kelvor_xpu {

/// Tensor.copy_: all element types, any strides, broadcast, xpu to xpu and to and from the CPU. The copy is
/// complete when the call returns, whatever `non_blocking` says.
at::Tensor& copy_(at::Tensor& self, const at::Tensor& source, bool non_blocking);

/// Tensor.item().
at::Scalar local_scalar_dense(const at::Tensor& self);

}  // namespace kelvor_xpu
