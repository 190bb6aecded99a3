#include "copy.hpp"

#include <ATen/TensorIterator.h>
#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/native/Copy.h>
#include <ATen/ops/_local_scalar_dense.h>

#include "alias.hpp"

namespace kelvor_xpu {
namespace {

/// Above this, the CPU's operator knows faster ways for some layouts and types.
constexpr int64_t largest_direct_copy = 2048;

/// A small copy by the CPU's loop on the memory of both tensors.
bool copied_directly(const at::Tensor& self, const at::Tensor& source) {
  if (self.numel() > largest_direct_copy || self.is_same(source)) return false;
  if (source.is_complex() != self.is_complex()) return false;
  auto iterator = at::TensorIteratorConfig()
                      .add_output(self)
                      .add_const_input(source)
                      .resize_outputs(false)
                      .check_all_same_dtype(false)
                      .check_all_same_device(false)
                      .build();
  if (iterator.numel() > 0) at::native::copy_stub(at::kCPU, iterator, false);
  return true;
}

}  // namespace

at::Tensor& copy_(at::Tensor& self, const at::Tensor& source, bool) {
  for (const at::Tensor& tensor : {self, source}) {
    TORCH_CHECK_NOT_IMPLEMENTED(
        (tensor.is_cpu() || tensor.is_xpu()) && tensor.layout() == at::kStrided && !tensor.is_quantized(),
        "copy_ on the xpu device takes dense tensors of the xpu and cpu devices, but got ", tensor.toString(),
        " on ", tensor.device());
  }
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  if (source._is_zerotensor()) return self.zero_();
  if (copied_directly(self, source)) return self;
  Aliases aliases;
  at::Tensor to = on_xpu(self) ? aliases.alias(self) : self;
  to.copy_(on_xpu(source) ? aliases.alias(source) : source);
  return self;
}

at::Scalar local_scalar_dense(const at::Tensor& self) {
  Aliases aliases;
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  return at::_local_scalar_dense(aliases.alias(self));
}

}  // namespace kelvor_xpu
