// Which code path multiplies by a packed weight: the matrix engine, or a launcher from the forward tables,
// which then looks at the number of rows.

#include "linear_xpu_kernel.h"

#include <c10/util/Exception.h>

#include <array>
#include <cstdlib>
#include <string_view>
#include <type_traits>
#include <utility>

#include "checks.h"
#include "device_frame.h"
#include "formats/list.h"
#include "linear_launchers.h"

bool is_sysarr_enabled() {
  const char* disabled = std::getenv("QUARN_LLM_SYSARR_DISABLED");
  return disabled == nullptr || std::string_view(disabled) != "1";
}

namespace tolvane {
namespace {

using forward_table = std::array<forward_fn, qtype_count>;

constexpr forward_table forward_fns_new_32 = by_qtype<forward_fn>(
    []<class Format>(std::type_identity<Format>) { return linear_launchers<Format>::on_summit; });
constexpr forward_table forward_fns_new = by_qtype<forward_fn>(
    []<class Format>(std::type_identity<Format>) { return linear_launchers<Format>::elsewhere; });
constexpr forward_table forward_fns_new_igx =
    by_qtype<forward_fn>([]<class Format>(std::type_identity<Format>) -> forward_fn {
      if constexpr (!Format::forward_on_igx) return nullptr;
      return linear_launchers<Format>::on_igx;
    });

/// The expansion of each format that has one.
constexpr auto expansions = by_qtype<dequantize_fn>(
    []<class Format>(std::type_identity<Format>) { return linear_launchers<Format>::expanded; });

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

bool takes_matrix_engine(std::int64_t batch_size, std::int64_t output_size, int qtype) {
  if (!is_sysarr_enabled() || batch_size < 2 || output_size % 16 != 0) return false;
  if (qtype >= 20 || (sysarr_formats >> qtype & 1) == 0) return false;
  const int type = current_gpu_type();
  return (type == gpu_summit && batch_size <= 16) || (type == gpu_vela_a && batch_size <= 64);
}

/// The row count of a packed weight, from its length in bytes. A weight of no bytes has no rows.
std::int64_t rows_of(const char* op, const at::Tensor& weight, std::int64_t state_size, int qtype) {
  TORCH_CHECK(weight.scalar_type() == at::ScalarType::Byte && weight.dim() == 1, op,
              ": the weight must be a flat tensor of packed bytes (torch.uint8, 1 dimension), but has ",
              weight.dim(), " dimensions of ", toString(weight.scalar_type()));
  const std::uint64_t blocks = static_cast<std::uint64_t>(weight.size(0)) / GGML_TYPE_SIZE[qtype];
  const std::uint64_t elements = blocks * static_cast<std::uint64_t>(GGML_BLCK_SIZE[qtype]);
  const auto output_size = static_cast<std::int64_t>(elements / static_cast<std::uint64_t>(state_size));
  TORCH_CHECK(output_size > 0 || weight.size(0) == 0, op, ": the weight's ", weight.size(0),
              " bytes hold no row of ", state_size, " elements in this format");
  if (output_size > 0) check_index_range(op, state_size, output_size);
  return output_size;
}

}  // namespace

at::Tensor linear_xpu_forward_new(at::Tensor input, at::Tensor weight, int qtype, std::int64_t size_hint) {
  TORCH_CHECK(input.dim() == 2, "forward_new: input must have 2 dimensions, rows and state_size, but has ",
              input.dim());
  input = readable("forward_new", "input", std::move(input));
  weight = readable("forward_new", "weights", std::move(weight));
  const std::int64_t batch_size = input.size(0);
  const std::int64_t state_size = input.size(1);
  const forward_table& table = current_table();
  TORCH_CHECK(qtype >= 0 && qtype < qtype_count && table[qtype] != nullptr,
              "forward_new: this device has no function for qtype ", qtype, "; it must be ",
              qtypes_in_words([&](int q) { return table[q] != nullptr; }));
  TORCH_CHECK(state_size > 0, "forward_new: state_size must be positive, but got ", state_size);
  const std::int64_t output_size = rows_of("forward_new", weight, state_size, qtype);

  if (output_size > 0 && takes_matrix_engine(batch_size, output_size, qtype)) {
    return sysarr_forward(input, weight, batch_size, state_size, output_size, size_hint, qtype,
                          current_gpu_type() == gpu_summit);
  }
  return table[qtype](input, weight, batch_size, state_size, output_size, size_hint);
}

at::Tensor linear_xpu_expanded(const at::Tensor& like, const at::Tensor& weight, int qtype,
                               std::int64_t state_size) {
  TORCH_CHECK(qtype >= 0 && qtype < qtype_count && expansions[qtype] != nullptr,
              "forward_new: there is no expansion of qtype ", qtype);
  return expansions[qtype](like, weight, state_size, rows_of("forward_new", weight, state_size, qtype));
}

at::Tensor xpu_dequant(at::Tensor input, at::Tensor weight, int qtype) {
  TORCH_CHECK(input.dim() >= 2, "dequant: input must have at least 2 dimensions, but has ", input.dim());
  TORCH_CHECK(qtype >= 0 && qtype < qtype_count && dequant_takes[qtype], "dequant: qtype must be ",
              qtypes_in_words([](int q) { return dequant_takes[q]; }), ", but got ", qtype);
  weight = readable("dequant", "weight", std::move(weight));
  const std::int64_t state_size = input.size(1);
  TORCH_CHECK(state_size > 0, "dequant: state_size must be positive, but got ", state_size);
  const std::int64_t output_size = rows_of("dequant", weight, state_size, qtype);
  return expansions[qtype](input, weight, state_size, output_size);
}

}  // namespace tolvane
