#include "checks.h"

#include <c10/core/DeviceType.h>
#include <c10/util/Exception.h>

#include <limits>
#include <utility>

#include "dispatch.h"
#include "formats/list.h"

namespace tolvane {
namespace {

void check_memory(const char* op, const char* name, const at::Tensor& tensor) {
  const bool has_memory = tensor.has_storage() && tensor.storage().device_type() != c10::DeviceType::Meta &&
                          tensor.storage().data() != nullptr;
  TORCH_CHECK(has_memory || tensor.numel() == 0, op, ": ", name,
              " has no memory: it is a fake tensor, a wrapper of others, or zeros that are not stored");
}

}  // namespace

at::Tensor readable(const char* op, const char* name, at::Tensor tensor) {
  check_memory(op, name, tensor);
  return tensor.is_neg() ? tensor.resolve_neg() : std::move(tensor);
}

void check_writable(const char* op, const char* name, const at::Tensor& tensor) {
  check_memory(op, name, tensor);
  TORCH_CHECK(!tensor.is_neg(), op, ": ", name,
              " is written, so it must not be a view with a lazy sign; resolve_neg() makes a tensor of it");
}

void mark_written(const at::Tensor& tensor) {
  if (!tensor.is_inference()) tensor.unsafeGetTensorImpl()->bump_version();
}

void check_xpu(const char* op, const char* name, const at::Tensor& tensor) {
  TORCH_CHECK(tensor.defined(), op, ": ", name, " must be a XPU tensor, but is undefined");
  TORCH_CHECK(tensor.device().type() == c10::DeviceType::XPU, op, ": ", name,
              " must be a XPU tensor, but is on device ", tensor.device());
  TORCH_CHECK(tensor.is_contiguous(), op, ": ", name, " must be contiguous");
}

void check_floating(const char* label, const at::Tensor& tensor) {
  dispatch_floating(label, tensor.scalar_type(), [](auto) {});
}

void check_multiple(std::int64_t size, std::int64_t divisor) {
  TORCH_CHECK(size % divisor == 0, size, " must be a multiple of ", divisor);
}

void check_row_length(const char* op, std::int64_t state_size, std::int64_t block) {
  TORCH_CHECK(state_size > 0 && state_size % block == 0, op, ": state_size must be a positive multiple of ",
              block, ", the elements of a weight block, but got ", state_size);
}

void check_index_range(const char* op, std::int64_t state_size, std::int64_t output_size) {
  TORCH_CHECK(state_size > 0 && output_size > 0, op, ": sizes must be positive, but got state_size ",
              state_size, " and output_size ", output_size);
  std::int64_t elements = 0;
  TORCH_CHECK(!__builtin_mul_overflow(state_size, output_size, &elements) &&
                  elements <= std::numeric_limits<std::int32_t>::max(),
              op, ": state_size * output_size must be below 2147483648, but got ", state_size, " * ",
              output_size);
}

void check_activation(const char* op, const char* name, const at::Tensor& tensor, std::int64_t count) {
  TORCH_CHECK(tensor.numel() == count, op, ": ", name, " must have ", count, " elements, but has ",
              tensor.numel());
}

void check_packed_weight(const char* op, const char* name, const at::Tensor& weight, int qtype,
                         std::int64_t state_size, std::int64_t output_size) {
  TORCH_CHECK(weight.scalar_type() == at::ScalarType::Byte && weight.dim() == 1, op, ": ", name,
              " must be a flat tensor of packed bytes (torch.uint8, 1 dimension), but has ", weight.dim(),
              " dimensions of ", toString(weight.scalar_type()));
  const std::int64_t needed =
      state_size * output_size / GGML_BLCK_SIZE[qtype] * static_cast<std::int64_t>(GGML_TYPE_SIZE[qtype]);
  TORCH_CHECK(weight.size(0) >= needed, op, ": ", name, " must hold ", output_size, " rows of ", state_size,
              " elements, ", needed, " bytes in this format, but has ", weight.size(0));
}

}  // namespace tolvane
