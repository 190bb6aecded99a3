// The formats of one byte an element: q8_0, fp8_e4m3 and fp8_e5m2.

#include "linear_forward.h"
#include "linear_launchers.h"

namespace tolvane {

template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_q8_0_2x8 = matvec<q8_0, T, wg_size, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_q8_0_1x2 = dequantize_rows_of<q8_0, T, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_q8_0_1x1 = dequantize_rows_of<q8_0, T, 1>;

template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_fp8_e4m3_2x8 = matvec<fp8_e4m3, T, wg_size, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_fp8_e4m3_1x2 = dequantize_rows_of<fp8_e4m3, T, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_fp8_e4m3_1x1 = dequantize_rows_of<fp8_e4m3, T, 1>;

template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_fp8_e5m2_2x8 = matvec<fp8_e5m2, T, wg_size, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2 = dequantize_rows_of<fp8_e5m2, T, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1 = dequantize_rows_of<fp8_e5m2, T, 1>;

namespace {

template <int sg_size, int wg_size>
struct q8_0_paths {
  static constexpr std::int64_t batch_limit = 1;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_q8_0_2x8<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return current_gpu_type() == gpu_summit ? qlinear_xpu_dequantize_kernel_q8_0_1x2<T, sg_size>
                                            : qlinear_xpu_dequantize_kernel_q8_0_1x1<T, sg_size>;
  }
};

template <int sg_size, int wg_size>
struct fp8_e4m3_paths {
  static constexpr std::int64_t batch_limit = 1;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_fp8_e4m3_2x8<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return current_gpu_type() == gpu_summit ? qlinear_xpu_dequantize_kernel_fp8_e4m3_1x2<T, sg_size>
                                            : qlinear_xpu_dequantize_kernel_fp8_e4m3_1x1<T, sg_size>;
  }
};

template <int sg_size, int wg_size>
struct fp8_e5m2_paths {
  static constexpr std::int64_t batch_limit = 1;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_fp8_e5m2_2x8<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return current_gpu_type() == gpu_summit ? qlinear_xpu_dequantize_kernel_fp8_e5m2_1x2<T, sg_size>
                                            : qlinear_xpu_dequantize_kernel_fp8_e5m2_1x1<T, sg_size>;
  }
};

}  // namespace

template <int sg_size, int wg_size>
at::Tensor xpu_forward_q8_0_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size,
                                std::int64_t /*size_hint*/) {
  return forward_by<q8_0_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

template <int sg_size, int wg_size>
at::Tensor xpu_forward_fp8_e4m3(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size,
                                std::int64_t /*size_hint*/) {
  return forward_by<fp8_e4m3_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

template <int sg_size, int wg_size>
at::Tensor xpu_forward_fp8_e5m2(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size,
                                std::int64_t /*size_hint*/) {
  return forward_by<fp8_e5m2_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

at::Tensor dequantize_q8_0(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size) {
  return dequantized<q8_0_paths<16, 32>>(input, weight, state_size, output_size);
}

at::Tensor dequantize_fp8_e4m3(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                               std::int64_t output_size) {
  return dequantized<fp8_e4m3_paths<16, 32>>(input, weight, state_size, output_size);
}

at::Tensor dequantize_fp8_e5m2(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                               std::int64_t output_size) {
  return dequantized<fp8_e5m2_paths<16, 32>>(input, weight, state_size, output_size);
}

template decltype(xpu_forward_q8_0_new<32, 64>) xpu_forward_q8_0_new<32, 64>;
template decltype(xpu_forward_q8_0_new<16, 32>) xpu_forward_q8_0_new<16, 32>;
template decltype(xpu_forward_fp8_e4m3<32, 64>) xpu_forward_fp8_e4m3<32, 64>;
template decltype(xpu_forward_fp8_e4m3<16, 32>) xpu_forward_fp8_e4m3<16, 32>;
template decltype(xpu_forward_fp8_e5m2<32, 64>) xpu_forward_fp8_e5m2<32, 64>;
template decltype(xpu_forward_fp8_e5m2<16, 32>) xpu_forward_fp8_e5m2<16, 32>;

}  // namespace tolvane
