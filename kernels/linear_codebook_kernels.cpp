// The formats whose codes stand for tabled values: nf4, fp4 and nf3.

#include "linear_forward.h"
#include "linear_launchers.h"

namespace tolvane {

template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_nf4_2x16 = matvec<nf4, T, wg_size, 2>;
template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_nf4_2x16_batch = batch_matvec<nf4, T, wg_size>;
template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_fp4_2x16 = matvec<fp4, T, wg_size, 2>;
template <class T, int sg_size, int wg_size>
inline constexpr auto qlinear_xpu_kernel_nf3_2x16 = matvec<nf3, T, wg_size, 2>;

template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_nf4_1x4 = dequantize_rows_of<nf4, T, 4>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_nf4_1x2 = dequantize_rows_of<nf4, T, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_fp4_1x4 = dequantize_rows_of<fp4, T, 4>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_fp4_1x2 = dequantize_rows_of<fp4, T, 2>;
template <class T, int sg_size>
inline constexpr auto qlinear_xpu_dequantize_kernel_nf3_new =
    dequantize_flat<nf3, T, submission_form::waiting>;

namespace {

template <int sg_size, int wg_size>
struct nf4_paths {
  static constexpr std::int64_t batch_limit = 14;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_nf4_2x16<T, sg_size, wg_size>;
  }
  template <class T>
  static auto batch() {
    return qlinear_xpu_kernel_nf4_2x16_batch<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return current_gpu_type() == gpu_summit ? qlinear_xpu_dequantize_kernel_nf4_1x4<T, sg_size>
                                            : qlinear_xpu_dequantize_kernel_nf4_1x2<T, sg_size>;
  }
};

template <int sg_size, int wg_size>
struct fp4_paths {
  static constexpr std::int64_t batch_limit = 1;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_fp4_2x16<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return current_gpu_type() == gpu_summit ? qlinear_xpu_dequantize_kernel_fp4_1x4<T, sg_size>
                                            : qlinear_xpu_dequantize_kernel_fp4_1x2<T, sg_size>;
  }
};

template <int sg_size, int wg_size>
struct nf3_paths {
  static constexpr std::int64_t batch_limit = 1;
  template <class T>
  static auto one_row() {
    return qlinear_xpu_kernel_nf3_2x16<T, sg_size, wg_size>;
  }
  template <class T>
  static auto dequantize() {
    return qlinear_xpu_dequantize_kernel_nf3_new<T, sg_size>;
  }
};

}  // namespace

template <int sg_size, int wg_size>
at::Tensor xpu_forward_nf4_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                               std::int64_t state_size, std::int64_t output_size,
                               std::int64_t /*size_hint*/) {
  return forward_by<nf4_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

template <int sg_size, int wg_size>
at::Tensor xpu_forward_fp4(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                           std::int64_t state_size, std::int64_t output_size, std::int64_t /*size_hint*/) {
  return forward_by<fp4_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

template <int sg_size, int wg_size>
at::Tensor xpu_forward_nf3_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                               std::int64_t state_size, std::int64_t output_size,
                               std::int64_t /*size_hint*/) {
  return forward_by<nf3_paths<sg_size, wg_size>>(input, weight, batch_size, state_size, output_size);
}

at::Tensor dequantize_nf3(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                          std::int64_t output_size) {
  return dequantized<nf3_paths<16, 32>>(input, weight, state_size, output_size);
}

at::Tensor dequantize_nf4(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                          std::int64_t output_size) {
  return dequantized<nf4_paths<16, 32>>(input, weight, state_size, output_size);
}

at::Tensor dequantize_fp4(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                          std::int64_t output_size) {
  return dequantized<fp4_paths<16, 32>>(input, weight, state_size, output_size);
}

template decltype(xpu_forward_nf4_new<32, 64>) xpu_forward_nf4_new<32, 64>;
template decltype(xpu_forward_nf4_new<16, 32>) xpu_forward_nf4_new<16, 32>;
template decltype(xpu_forward_fp4<32, 64>) xpu_forward_fp4<32, 64>;
template decltype(xpu_forward_fp4<16, 32>) xpu_forward_fp4<16, 32>;
template decltype(xpu_forward_nf3_new<32, 64>) xpu_forward_nf3_new<32, 64>;
template decltype(xpu_forward_nf3_new<16, 32>) xpu_forward_nf3_new<16, 32>;

}  // namespace tolvane
