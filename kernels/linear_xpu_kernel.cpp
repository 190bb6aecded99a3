// Which code path multiplies by a packed weight: the matrix engine, or a launcher from the forward tables,
// which then looks at the number of rows.

#include "linear_xpu_kernel.h"

#include <ATen/ops/empty.h>
#include <c10/util/Exception.h>

#include <array>
#include <cstdlib>
#include <string_view>

#include "checks.h"
#include "device_frame.h"
#include "formats.h"
#include "linear_launchers.h"

bool is_sysarr_enabled() {
  const char* disabled = std::getenv("QUARN_LLM_SYSARR_DISABLED");
  return disabled == nullptr || std::string_view(disabled) != "1";
}

namespace tolvane {
namespace {

using forward_fn = at::Tensor (*)(at::Tensor, at::Tensor, std::int64_t, std::int64_t, std::int64_t,
                                  std::int64_t);
using forward_table = std::array<forward_fn, qtype_count>;

/// The super-block formats have their rows in the tables, and no kernels yet.
at::Tensor xpu_forward_iq2_xxs(at::Tensor, at::Tensor, std::int64_t, std::int64_t, std::int64_t,
                               std::int64_t) {
  TORCH_CHECK(false, "forward_new: the format iq2_xxs (qtype 21) has no kernel yet");
}
at::Tensor xpu_forward_q2_k(at::Tensor, at::Tensor, std::int64_t, std::int64_t, std::int64_t, std::int64_t) {
  TORCH_CHECK(false, "forward_new: the format q2_k (qtype 23) has no kernel yet");
}

template <int sg_size, int wg_size, int ROWS>
constexpr forward_table formats_of_64() {
  forward_table table{};
  table[qtype_q4_0] = xpu_forward_q4_0_new<sg_size, wg_size, ROWS>;
  table[qtype_q4_1] = xpu_forward_q4_1_new<sg_size, wg_size>;
  table[qtype_q5_0] = xpu_forward_q5_0<sg_size, wg_size>;
  table[qtype_q5_1] = xpu_forward_q5_1<sg_size, wg_size>;
  table[qtype_q8_0] = xpu_forward_q8_0_new<sg_size, wg_size>;
  table[qtype_nf4] = xpu_forward_nf4_new<sg_size, wg_size>;
  table[qtype_nf3] = xpu_forward_nf3_new<sg_size, wg_size>;
  table[qtype_fp8_e4m3] = xpu_forward_fp8_e4m3<sg_size, wg_size>;
  table[qtype_fp4] = xpu_forward_fp4<sg_size, wg_size>;
  table[qtype_fp8_e5m2] = xpu_forward_fp8_e5m2<sg_size, wg_size>;
  return table;
}

constexpr forward_table with_super_blocks(forward_table table) {
  table[qtype_iq2_xxs] = xpu_forward_iq2_xxs;
  table[qtype_q2_k] = xpu_forward_q2_k;
  return table;
}

constexpr forward_table forward_fns_new_32 = with_super_blocks(formats_of_64<32, 64, 2>());
constexpr forward_table forward_fns_new = with_super_blocks(formats_of_64<16, 32, 2>());
constexpr forward_table forward_fns_new_igx = formats_of_64<16, 32, 8>();

const forward_table& current_table() {
  switch (current_gpu_type()) {
    case gpu_igx:
      return forward_fns_new_igx;
    case gpu_summit:
      return forward_fns_new_32;
    default:
      return forward_fns_new;
  }
}

/// Formats that the matrix engine takes, by qtype: 2, 8, 15 and 19.
constexpr std::uint32_t sysarr_formats = 557316;

bool takes_matrix_engine(std::int64_t batch_size, std::int64_t output_size, int qtype) {
  if (!is_sysarr_enabled() || batch_size < 2 || output_size % 16 != 0) return false;
  if (qtype >= 20 || (sysarr_formats >> qtype & 1) == 0) return false;
  const int type = current_gpu_type();
  return (type == gpu_summit && batch_size <= 16) || (type == gpu_vela_a && batch_size <= 64);
}

/// The row count of a packed weight, from its length in bytes.
std::int64_t rows_of(const char* op, const at::Tensor& weight, std::int64_t state_size, int qtype) {
  TORCH_CHECK(weight.scalar_type() == at::ScalarType::Byte && weight.dim() == 1, op,
              ": the weight must be a flat tensor of packed bytes (torch.uint8, 1 dimension), but has ",
              weight.dim(), " dimensions of ", toString(weight.scalar_type()));
  const std::uint64_t blocks = static_cast<std::uint64_t>(weight.size(0)) / GGML_TYPE_SIZE[qtype];
  const std::uint64_t elements = blocks * static_cast<std::uint64_t>(GGML_BLCK_SIZE[qtype]);
  const auto output_size = static_cast<std::int64_t>(elements / static_cast<std::uint64_t>(state_size));
  TORCH_CHECK(output_size > 0, op, ": the weight's ", weight.size(0), " bytes hold no row of ", state_size,
              " elements in this format");
  return output_size;
}

/// The first tile of a row that a one-row kernel of the format checks for, 0 where it has none.
int checked_tile(int qtype) {
  switch (qtype) {
    case qtype_q8_0:
    case qtype_fp8_e4m3:
    case qtype_fp8_e5m2:
      return 8;
    case qtype_q5_0:
    case qtype_q5_1:
      return 0;
    default:
      return 16;
  }
}

}  // namespace

at::Tensor linear_xpu_forward_new(at::Tensor input, at::Tensor weight, int qtype, std::int64_t size_hint) {
  TORCH_CHECK(input.dim() == 2, "forward_new: input must have 2 dimensions, rows and state_size, but has ",
              input.dim());
  const std::int64_t batch_size = input.size(0);
  const std::int64_t state_size = input.size(1);
  const forward_table& table = current_table();
  TORCH_CHECK(qtype >= 0 && qtype < qtype_count && table[qtype] != nullptr,
              "forward_new: this device has no function for qtype ", qtype,
              "; it must be 2, 3, 6, 7, 8, 10, 11, 15, 16 or 19");
  TORCH_CHECK(state_size > 0, "forward_new: state_size must be positive, but got ", state_size);
  const std::int64_t output_size = rows_of("forward_new", weight, state_size, qtype);
  check_index_range("forward_new", state_size, output_size);

  if (takes_matrix_engine(batch_size, output_size, qtype)) {
    return sysarr_forward(input, weight, batch_size, state_size, output_size, size_hint, qtype,
                          current_gpu_type() == gpu_summit);
  }
  if (state_size % GGML_BLCK_SIZE[qtype] != 0) {
    // In the order in which a launcher would meet them: the element type, then the kernel's own check of the
    // row.
    check_floating("qlinear_forward_xpu", input);
    if (batch_size != 1) check_multiple(state_size, 64);
    if (const int tile = checked_tile(qtype)) check_multiple(state_size, tile);
    check_row_length("forward_new", state_size, GGML_BLCK_SIZE[qtype]);
  }
  if (batch_size == 0) return at::empty({0, output_size}, input.options().device(weight.device()));
  return table[qtype](input, weight, batch_size, state_size, output_size, size_hint);
}

at::Tensor xpu_dequant(at::Tensor input, at::Tensor weight, int qtype) {
  TORCH_CHECK(input.dim() >= 2, "dequant: input must have at least 2 dimensions, but has ", input.dim());
  const auto dequantize = [&] {
    switch (qtype) {
      case qtype_q4_0:
        return dequantize_q4_0;
      case qtype_q8_0:
        return dequantize_q8_0;
      case qtype_nf4:
        return dequantize_nf4;
      case qtype_fp8_e4m3:
        return dequantize_fp8_e4m3;
      case qtype_fp4:
        return dequantize_fp4;
      case qtype_fp8_e5m2:
        return dequantize_fp8_e5m2;
      default:
        TORCH_CHECK(qtype != qtype_iq2_xxs, "dequant: the format iq2_xxs (qtype 21) has no kernel yet");
        TORCH_CHECK(false, "dequant: qtype must be 2, 8, 10, 15, 16 or 19, but got ", qtype);
    }
  }();
  const std::int64_t state_size = input.size(1);
  TORCH_CHECK(state_size > 0, "dequant: state_size must be positive, but got ", state_size);
  const std::int64_t output_size = rows_of("dequant", weight, state_size, qtype);
  check_index_range("dequant", state_size, output_size);
  return dequantize(input, weight, state_size, output_size);
}

}  // namespace tolvane
