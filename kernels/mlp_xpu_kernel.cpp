// The gated feed-forward step of a decoder layer for one activation row, in one launch:
// out[n] = silu(gate[n]) * up[n]. The gate and up vectors never reach global memory.

#include "mlp_xpu_kernel.h"

#include <c10/util/Exception.h>

#include <array>
#include <limits>
#include <utility>

#include "checks.h"
#include "device_frame.h"
#include "dispatch.h"
#include "formats/list.h"
#include "matvec.h"
#include "new_tensor.h"
#include "profiler_scope.h"
#include "submit.h"
#include "sycl/math.hpp"

namespace tolvane {
namespace {

/// silu(gate) * up, rounded to T once: in float, but for double, whose product is in double.
template <class T>
T gated(T gate, T up) {
  const auto g = static_cast<float>(gate);
  const float divisor = 1 + sycl::native::exp(-g);
  if constexpr (std::same_as<T, double>) {
    return up * static_cast<double>(g / divisor);
  } else {
    return T(g * static_cast<float>(up) / divisor);
  }
}

/// Work-group g computes results 2g and 2g + 1.
template <class Format, class T>
struct mlp_forward_kernel {
  std::int64_t state_size;
  const std::uint8_t* weight_gate;
  std::int32_t scale_offset;
  const T* input;
  sycl::local_accessor<T> local;
  const std::uint8_t* weight_up;
  T* output;

  activation_tiles<Format, T> tiles{};
  void prepare(sycl::host::arena& memory) { tiles.prepare(memory, input, static_cast<int>(state_size)); }

  template <class Item>
  void operator()(const Item& item) const {
    // Assign
    const auto row0 = static_cast<std::int64_t>(item.get_group(0)) * 2;
    const zoned_weight<Format> gate{weight_gate, scale_offset, state_size / Format::block};
    const zoned_weight<Format> up{weight_up, scale_offset, state_size / Format::block};
    const std::array rows = {gate.row(row0), gate.row(row0 + 1), up.row(row0), up.row(row0 + 1)};
    // Walk, Stage, Tree
    const auto sum = row_products<1>(item, tiles, 0, state_size, rows, local.get(item));
    // Write
    if (item.first() != 0) return;
    output[row0] = gated(sum[0], sum[2]);
    output[row0 + 1] = gated(sum[1], sum[3]);
  }
};

/// Checks the sizes and submits the kernel for T. `sg_size` is the sub-group size that the device's class
/// asks for; no sub-group operation depends on it here.
template <class Format, class T, int sg_size, int wg_size>
void launch(const T* input, const std::uint8_t* gate, const std::uint8_t* up, T* output,
            std::int64_t state_size, std::int64_t output_size, c10::Device device) {
  const std::int32_t scale_offset = zoned_scale_offset<Format>(state_size, output_size);
  const auto groups = static_cast<std::size_t>(output_size / 2);
  submit(device, [&](sycl::handler& command) {
    const sycl::local_accessor<T> local(4 * wg_size, command);
    command.parallel_for(
        sycl::nd_range<1>(groups * wg_size, wg_size),
        mlp_forward_kernel<Format, T>{state_size, gate, scale_offset, input, local, up, output});
  });
}

template <class Format, int sg_size, int wg_size>
at::Tensor forward(const char* label, const at::Tensor& input, const at::Tensor& weight_gate,
                   const at::Tensor& weight_up, std::int64_t batch_size, std::int64_t state_size,
                   std::int64_t output_size) {
  TORCH_CHECK(batch_size == 1,
              "mlp_forward_xpu: batch_size == 1 is needed, one activation row per call, but got ",
              batch_size);
  check_floating(label, input);
  check_multiple(state_size, Format::tile);
  check_row_length("mlp_forward_xpu", state_size, Format::block);
  check_index_range("mlp_forward_xpu", state_size, output_size);
  TORCH_CHECK(output_size % 2 == 0, "mlp_forward_xpu: output_size must be even, but got ", output_size);
  check_activation("mlp_forward_xpu", "input", input, state_size);
  check_packed_weight("mlp_forward_xpu", "weight_gate", weight_gate, Format::qtype, state_size, output_size);
  check_packed_weight("mlp_forward_xpu", "weight_up", weight_up, Format::qtype, state_size, output_size);

  at::Tensor output = new_tensor({1, output_size}, input.options().device(weight_gate.device()));
  dispatch_floating(label, input.scalar_type(), [&]<class T>(std::type_identity<T>) {
    launch<Format, T, sg_size, wg_size>(elements<T>(input), weight_gate.data_ptr<std::uint8_t>(),
                                        weight_up.data_ptr<std::uint8_t>(), elements<T>(output), state_size,
                                        output_size, weight_gate.device());
  });
  return output;
}

}  // namespace

template <int sg_size, int wg_size>
at::Tensor mlp_forward_q4_0_xpu_t(at::Tensor input, at::Tensor weight_gate, at::Tensor weight_up,
                                  std::int64_t batch_size, std::int64_t state_size,
                                  std::int64_t output_size) {
  return forward<q4_0, sg_size, wg_size>("mlp_forward_q4_0_xpu_t", input, weight_gate, weight_up, batch_size,
                                         state_size, output_size);
}

template <int sg_size, int wg_size>
at::Tensor mlp_forward_fp8_e5m2_xpu_t(at::Tensor input, at::Tensor weight_gate, at::Tensor weight_up,
                                      std::int64_t batch_size, std::int64_t state_size,
                                      std::int64_t output_size) {
  return forward<fp8_e5m2_fused, sg_size, wg_size>("mlp_forward_fp8_e5m2_xpu_t", input, weight_gate,
                                                   weight_up, batch_size, state_size, output_size);
}

namespace {

using mlp_forward_fn = at::Tensor (*)(at::Tensor, at::Tensor, at::Tensor, std::int64_t, std::int64_t,
                                      std::int64_t);
using mlp_forward_table = std::array<mlp_forward_fn, 20>;

template <int sg_size, int wg_size>
constexpr mlp_forward_table forward_table() {
  mlp_forward_table table{};
  table[q4_0::qtype] = mlp_forward_q4_0_xpu_t<sg_size, wg_size>;
  table[fp8_e5m2_fused::qtype] = mlp_forward_fp8_e5m2_xpu_t<sg_size, wg_size>;
  return table;
}

constexpr mlp_forward_table mlp_forward_fns = forward_table<16, 32>();
constexpr mlp_forward_table mlp_forward_fns_32 = forward_table<32, 64>();

}  // namespace

at::Tensor mlp_forward_xpu(at::Tensor input, at::Tensor weight_gate, at::Tensor weight_up,
                           std::int64_t batch_size, std::int64_t state_size, std::int64_t output_size,
                           int qtype) {
  const profiler_scope scope("mlp_forward", input);
  check_xpu("mlp_forward_xpu", "input", input);
  check_xpu("mlp_forward_xpu", "weight_gate", weight_gate);
  check_xpu("mlp_forward_xpu", "weight_up", weight_up);
  input = readable("mlp_forward_xpu", "input", std::move(input));
  weight_gate = readable("mlp_forward_xpu", "weight_gate", std::move(weight_gate));
  weight_up = readable("mlp_forward_xpu", "weight_up", std::move(weight_up));
  const mlp_forward_table& table = current_gpu_type() == gpu_summit ? mlp_forward_fns_32 : mlp_forward_fns;
  const bool known = qtype >= 0 && qtype < static_cast<int>(table.size()) && table[qtype] != nullptr;
  TORCH_CHECK(known, "mlp_forward_xpu: qtype must be 2 (q4_0) or 19 (fp8_e5m2), but got ", qtype);
  return table[qtype](input, weight_gate, weight_up, batch_size, state_size, output_size);
}

}  // namespace tolvane
