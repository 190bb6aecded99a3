// The five-bit formats q5_0 and q5_1.

#include "five_bit_decoders.h"
#include "linear_forward.h"
#include "linear_launchers.h"

namespace tolvane {

template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_q5_0 = five_bit_matvec<q5_0, T, wg_size>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_q5_0 = dequantize_flat<q5_0, T, submission_form::waiting>;

template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_q5_1 = five_bit_matvec<q5_1, T, wg_size>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_q5_1 = dequantize_flat<q5_1, T, submission_form::plain>;

namespace {

template <int sg_size, int wg_size>
struct q5_0_paths {
  static constexpr std::int64_t batch_limit = 1;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_q5_0<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return qlinear_xpu_dequantize_kernel_q5_0<T, sg_size>;
  }
};

template <int sg_size, int wg_size>
struct q5_1_paths {
  static constexpr std::int64_t batch_limit = 1;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_q5_1<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return qlinear_xpu_dequantize_kernel_q5_1<T, sg_size>;
  }
};

}  // namespace

template <int sg_size, int wg_size>
at::Tensor xpu_forward_q5_0(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                            std::int64_t state_size, std::int64_t output_size, std::int64_t /*size_hint*/) {
  return forward_by<q5_0_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

template <int sg_size, int wg_size>
at::Tensor xpu_forward_q5_1(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                            std::int64_t state_size, std::int64_t output_size, std::int64_t /*size_hint*/) {
  return forward_by<q5_1_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

at::Tensor dequantize_q5_0(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size) {
  return dequantized<q5_0_paths<16, 32>>(input, weight, state_size, output_size);
}

at::Tensor dequantize_q5_1(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size) {
  return dequantized<q5_1_paths<16, 32>>(input, weight, state_size, output_size);
}

template decltype(xpu_forward_q5_0<32, 64>) xpu_forward_q5_0<32, 64>;
template decltype(xpu_forward_q5_0<16, 32>) xpu_forward_q5_0<16, 32>;
template decltype(xpu_forward_q5_1<32, 64>) xpu_forward_q5_1<32, 64>;
template decltype(xpu_forward_q5_1<16, 32>) xpu_forward_q5_1<16, 32>;

}  // namespace tolvane
