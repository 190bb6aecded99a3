// Rows of a packed table, picked by indices and expanded: the look-up of an embedding.

#include <c10/util/Exception.h>

#include <utility>

#include "checks.h"
#include "dispatch.h"
#include "formats/q2_k.h"
#include "linear_xpu_kernel.h"
#include "new_tensor.h"
#include "submit.h"
#include "sycl/sycl.hpp"

namespace tolvane {
namespace {

/// A work-group expands one block of the output, a work-item the four elements of a byte.
struct dequantize_rows_kernel_q2_k {
  static constexpr bool waits = false;
  static constexpr int group = 64;

  const std::uint8_t* weight;
  const std::int64_t* indices;
  std::int64_t blocks_per_row;
  float* output;

  template <class Item>
  void operator()(const Item& item) const {
    const auto g = static_cast<std::int64_t>(item.get_group(0));
    const std::int64_t row = g / blocks_per_row;
    const std::int64_t source = g - row * blocks_per_row + spmd::load<1>(indices + row) * blocks_per_row;
    q2_k::expand<Item::lanes>(weight + source * q2_k::record_bytes, item.first(), output + g * q2_k::block);
  }
};

void xpu_dequantize_rows_kernel_q2_k(const std::uint8_t* weight, const std::int64_t* indices, float* output,
                                     std::size_t B, std::size_t L, std::size_t state_size,
                                     c10::Device device) {
  using kernel = dequantize_rows_kernel_q2_k;
  const std::size_t blocks_per_row = state_size / q2_k::block;
  const std::size_t total = L * B * blocks_per_row;
  submit<submission_form::waiting>(device, [&](sycl::handler& command) {
    command.parallel_for(sycl::nd_range<1>(total * kernel::group, kernel::group),
                         kernel{weight, indices, static_cast<std::int64_t>(blocks_per_row), output});
  });
}

void check_indices(const at::Tensor& input, std::int64_t rows, std::int64_t state_size) {
  const auto* indices = input.data_ptr<std::int64_t>();
  for (std::int64_t i = 0; i < input.numel(); ++i) {
    TORCH_CHECK(indices[i] >= 0 && indices[i] < rows, "dequantize_rows: input[", i / input.size(1), "][",
                i % input.size(1), "] is ", indices[i], ", but the weight has ", rows, " rows of ",
                state_size, " elements");
  }
}

}  // namespace

at::Tensor xpu_dequantize_rows(at::Tensor input, at::Tensor weight, int qtype, std::int64_t state_size) {
  TORCH_CHECK(input.dim() == 2, "dequantize_rows: input must have 2 dimensions, but has ", input.dim());
  const std::int64_t B = input.size(0), L = input.size(1);
  const auto options = weight.options().dtype(at::ScalarType::Float);
  if (qtype != q2_k::qtype) return new_tensor({B, L, state_size}, options);
  check_multiple(state_size, 64);
  check_row_length("dequantize_rows", state_size, q2_k::block);
  TORCH_CHECK(input.scalar_type() == at::ScalarType::Long,
              "dequantize_rows: input must hold row numbers as torch.int64, but is ",
              toString(input.scalar_type()));
  TORCH_CHECK(
      weight.scalar_type() == at::ScalarType::Byte && weight.dim() == 1,
      "dequantize_rows: weight must be a flat tensor of packed bytes (torch.uint8, 1 dimension), but has ",
      weight.dim(), " dimensions of ", toString(weight.scalar_type()));
  input = readable("dequantize_rows", "input", std::move(input));
  weight = readable("dequantize_rows", "weight", std::move(weight));
  check_indices(input, weight.size(0) / (state_size / q2_k::block * q2_k::record_bytes), state_size);
  at::Tensor output = new_tensor({B, L, state_size}, options);
  if (output.numel() == 0) return output;
  xpu_dequantize_rows_kernel_q2_k(weight.data_ptr<std::uint8_t>(), input.data_ptr<std::int64_t>(),
                                  elements<float>(output), static_cast<std::size_t>(B),
                                  static_cast<std::size_t>(L), static_cast<std::size_t>(state_size),
                                  weight.device());
  return output;
}

}  // namespace tolvane
