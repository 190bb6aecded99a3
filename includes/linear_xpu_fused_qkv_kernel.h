#pragma once

#include <ATen/core/Tensor.h>

#include <cstdint>
#include <vector>

namespace tolvane {

/// What a decoder layer does for one token between its norm and its attention, in one launch: projects the
/// activation row to query, key and value, turns query and key by the token's position (rotary embedding,
/// rotate-half, base 10000), and writes key and value to row `kv_length` of their caches.
///
/// `input` is [1, state_size] (half, float, double or bfloat16). The weights are packed bytes of rows of
/// state_size in the format `qtype`, 2 (q4_0) or 19 (fp8_e5m2), whose row counts follow from their lengths
/// and are whole numbers of heads of `head_dim`, which is even. `position_ids` are int64, of which the first
/// is read. The caches are [1, key heads, rows, head_dim] in input's type with a last stride of 1; their
/// storage must hold the row `kv_length`, and one row more than they have.
///
/// Returns the query [1, heads, 1, head_dim] and views of the caches with one row more. Raises c10::Error,
/// before anything is submitted, where one of this fails.
std::vector<at::Tensor> linear_xpu_qkv_forward(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k,
                                               at::Tensor weight_v, at::Tensor position_ids,
                                               at::Tensor key_cache, at::Tensor value_cache, int qtype,
                                               std::int64_t kv_length, std::int64_t head_dim);

/// The same without the views, as PyTorch's dispatcher has it: returns the query.
at::Tensor linear_xpu_qkv_query(at::Tensor input, at::Tensor weight_q, at::Tensor weight_k,
                                at::Tensor weight_v, at::Tensor position_ids, at::Tensor key_cache,
                                at::Tensor value_cache, int qtype, std::int64_t kv_length,
                                std::int64_t head_dim);

}  // namespace tolvane
