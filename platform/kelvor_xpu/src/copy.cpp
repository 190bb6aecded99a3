#include "copy.hpp"

#include <ATen/core/LegacyTypeDispatch.h>
#include <ATen/ops/_local_scalar_dense.h>

#include "alias.hpp"

namespace kelvor_xpu {

at::Tensor& copy_(at::Tensor& self, const at::Tensor& source, bool) {
  for (const at::Tensor& tensor : {self, source}) {
    TORCH_CHECK_NOT_IMPLEMENTED(
        (tensor.is_cpu() || tensor.is_xpu()) && tensor.layout() == at::kStrided && !tensor.is_quantized(),
        "copy_ on the xpu device takes dense tensors of the xpu and cpu devices, but got ", tensor.toString(),
        " on ", tensor.device());
  }
  Aliases aliases;
  const at::AutoDispatchBelowADInplaceOrView below_autograd;
  if (source._is_zerotensor()) return self.zero_();
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
