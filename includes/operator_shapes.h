#pragma once
// What each operator's result looks like, without computing it: for fake and meta tensors, whose sizes may be
// symbols. Nothing here reads an element, and bad input is refused where the result's shape depends on it
// only.

#include <ATen/core/Tensor.h>
#include <c10/util/ArrayRef.h>

#include <cstdint>
#include <optional>

namespace tolvane::shapes {

at::Tensor forward_new(const at::Tensor& input, const at::Tensor& weights, std::int64_t qtype,
                       std::int64_t size_hint);
at::Tensor forward_qkv(const at::Tensor& input, const at::Tensor& weight_q, const at::Tensor& weight_k,
                       const at::Tensor& weight_v, const at::Tensor& position_ids,
                       const at::Tensor& key_cache, const at::Tensor& value_cache, std::int64_t qtype,
                       std::int64_t kv_length, std::int64_t head_dim);
at::Tensor dequant(const at::Tensor& input, const at::Tensor& weight, std::int64_t qtype);
at::Tensor dequantize_rows(const at::Tensor& input, const at::Tensor& weight, std::int64_t qtype,
                           std::int64_t state_size);
/// The dense matrix [rows of the weight, state_size] in the type of `like`.
at::Tensor expanded(const at::Tensor& like, const at::Tensor& weight, std::int64_t qtype,
                    std::int64_t state_size);
/// Both norms. A row that is too long for the device's work-groups has the shape of any other here.
at::Tensor norm(const at::Tensor& input, at::IntArrayRef normalized_shape,
                const std::optional<at::Tensor>& weight, const std::optional<at::Tensor>& bias, double eps);
at::Tensor mlp_forward_xpu(const at::Tensor& input, const at::Tensor& weight_gate,
                           const at::Tensor& weight_up, std::int64_t batch_size, std::int64_t state_size,
                           std::int64_t output_size, std::int64_t qtype);
at::Tensor query_key_fp8_matmul(const at::Tensor& query, const at::Tensor& key);
at::Tensor attn_value_fp8_matmul(const at::Tensor& attn, const at::Tensor& value);
at::Tensor rwkv_linear_attention_v4(const at::Tensor& time_decay, const at::Tensor& time_first,
                                    const at::Tensor& key, const at::Tensor& value,
                                    const at::Tensor& num_state, const at::Tensor& den_state,
                                    const at::Tensor& max_state);
at::Tensor rwkv_linear_attention_v5(const at::Tensor& time_decay, const at::Tensor& time_first,
                                    const at::Tensor& receptance, const at::Tensor& key,
                                    const at::Tensor& value, const at::Tensor& state);
at::Tensor rwkv_time_shift(const at::Tensor& hidden, const at::Tensor& shifted, const at::Tensor& mix);

}  // namespace tolvane::shapes
