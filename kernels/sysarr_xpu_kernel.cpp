// The matrix engine's route of the quantized linear layer.

#include <c10/util/Exception.h>

#include "linear_xpu_kernel.h"

namespace tolvane {

at::Tensor sysarr_forward(at::Tensor, at::Tensor, std::int64_t batch_size, std::int64_t,
                          std::int64_t output_size, std::int64_t, int, bool) {
  TORCH_CHECK(
      false, "forward_new: ", batch_size, " rows and output_size ", output_size,
      " go to the matrix engine on this device, which has no kernel yet; set QUARN_LLM_SYSARR_DISABLED=1 to "
      "take the other routes");
}

}  // namespace tolvane
