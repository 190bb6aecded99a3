#pragma once
// The launchers of the quantized linear layer and the expansions of its formats. Each family of formats is
// instantiated in a file of its own, for the two pairs of sub-group and work-group sizes: (32, 64) and (16,
// 32).

#include <ATen/core/Tensor.h>

#include <cstdint>

namespace tolvane {

/// All launchers have this form; `size_hint` is read by q4_0 alone. They return [batch_size, output_size].
template <int sg_size, int wg_size, int ROWS>
at::Tensor xpu_forward_q4_0_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);

template <int sg_size, int wg_size>
at::Tensor xpu_forward_q4_1_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
template <int sg_size, int wg_size>
at::Tensor xpu_forward_nf4_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                               std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
template <int sg_size, int wg_size>
at::Tensor xpu_forward_nf3_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                               std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
template <int sg_size, int wg_size>
at::Tensor xpu_forward_fp4(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                           std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
template <int sg_size, int wg_size>
at::Tensor xpu_forward_q8_0_new(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
template <int sg_size, int wg_size>
at::Tensor xpu_forward_fp8_e4m3(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
template <int sg_size, int wg_size>
at::Tensor xpu_forward_fp8_e5m2(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                                std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
template <int sg_size, int wg_size>
at::Tensor xpu_forward_q5_0(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                            std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
template <int sg_size, int wg_size>
at::Tensor xpu_forward_q5_1(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                            std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);

/// The formats of 256 elements, the same for every class of device that has them.
at::Tensor xpu_forward_q2_k(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                            std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);
at::Tensor xpu_forward_iq2_xxs(at::Tensor input, at::Tensor weight, std::int64_t batch_size,
                               std::int64_t state_size, std::int64_t output_size, std::int64_t size_hint);

/// Expands a weight to [output_size, state_size], in the element type of `input`.
using dequantize_fn = at::Tensor (*)(const at::Tensor& input, const at::Tensor& weight,
                                     std::int64_t state_size, std::int64_t output_size);

at::Tensor dequantize_q4_1(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size);
at::Tensor dequantize_q5_0(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size);
at::Tensor dequantize_q5_1(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size);
at::Tensor dequantize_nf3(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                          std::int64_t output_size);
at::Tensor dequantize_q4_0(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size);
at::Tensor dequantize_nf4(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                          std::int64_t output_size);
at::Tensor dequantize_fp4(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                          std::int64_t output_size);
at::Tensor dequantize_q8_0(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size);
at::Tensor dequantize_fp8_e4m3(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                               std::int64_t output_size);
at::Tensor dequantize_fp8_e5m2(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                               std::int64_t output_size);
at::Tensor dequantize_q2_k(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                           std::int64_t output_size);
at::Tensor dequantize_iq2_xxs(const at::Tensor& input, const at::Tensor& weight, std::int64_t state_size,
                              std::int64_t output_size);

}  // namespace tolvane
