#include "new_tensor.h"

#include <ATen/ops/empty.h>

namespace tolvane {

at::Tensor new_tensor(at::IntArrayRef sizes, const at::TensorOptions& options) {
  return at::empty(sizes, options);
}

}  // namespace tolvane
