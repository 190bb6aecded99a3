#include "operator_shapes.h"

#include <ATen/ops/empty.h>

#include <initializer_list>

#include "formats/list.h"

namespace tolvane::shapes {
namespace {

/// Sizes that are symbols become numbers where the result depends on their value by more than copying.
std::int64_t number(const c10::SymInt& size) {
  return size.guard_int(__FILE__, __LINE__);
}

at::Tensor empty(std::initializer_list<c10::SymInt> sizes, const at::Tensor& like) {
  return at::empty_symint(c10::SymIntArrayRef(sizes.begin(), sizes.size()), like.options());
}

/// Rows of `state_size` elements in the bytes of a packed weight.
c10::SymInt packed_rows(const at::Tensor& weight, std::int64_t qtype, std::int64_t state_size) {
  const bool known = qtype >= 0 && qtype < qtype_count && GGML_BLCK_SIZE[qtype] > 0;
  TORCH_CHECK(known, "there is no packed format of qtype ", qtype);
  TORCH_CHECK(state_size > 0, "state_size must be positive, but got ", state_size);
  const auto block_bytes = static_cast<std::int64_t>(GGML_TYPE_SIZE[qtype]);
  return number(weight.sym_size(0)) / block_bytes * GGML_BLCK_SIZE[qtype] / state_size;
}

}  // namespace

at::Tensor forward_new(const at::Tensor& input, const at::Tensor& weights, std::int64_t qtype, std::int64_t) {
  return empty({input.sym_size(0), packed_rows(weights, qtype, number(input.sym_size(1)))}, input);
}

at::Tensor forward_qkv(const at::Tensor& input, const at::Tensor& weight_q, const at::Tensor&,
                       const at::Tensor&, const at::Tensor&, const at::Tensor&, const at::Tensor&,
                       std::int64_t qtype, std::int64_t, std::int64_t head_dim) {
  TORCH_CHECK(head_dim > 0, "head_dim must be positive, but got ", head_dim);
  const c10::SymInt rows = packed_rows(weight_q, qtype, number(input.sym_size(1)));
  return empty({1, rows / head_dim, 1, head_dim}, input);
}

at::Tensor dequant(const at::Tensor& input, const at::Tensor& weight, std::int64_t qtype) {
  return expanded(input, weight, qtype, number(input.sym_size(1)));
}

at::Tensor dequantize_rows(const at::Tensor& input, const at::Tensor& weight, std::int64_t,
                           std::int64_t state_size) {
  const c10::SymInt sizes[] = {input.sym_size(0), input.sym_size(1), state_size};
  return at::empty_symint(sizes, weight.options().dtype(at::ScalarType::Float));
}

at::Tensor expanded(const at::Tensor& like, const at::Tensor& weight, std::int64_t qtype,
                    std::int64_t state_size) {
  return empty({packed_rows(weight, qtype, state_size), state_size}, like);
}

at::Tensor norm(const at::Tensor& input, at::IntArrayRef, const std::optional<at::Tensor>&,
                const std::optional<at::Tensor>&, double) {
  return at::empty_symint(input.sym_sizes(), input.options());
}

at::Tensor mlp_forward_xpu(const at::Tensor& input, const at::Tensor&, const at::Tensor&, std::int64_t,
                           std::int64_t, std::int64_t output_size, std::int64_t) {
  return empty({1, output_size}, input);
}

at::Tensor query_key_fp8_matmul(const at::Tensor& query, const at::Tensor& key) {
  return empty({query.sym_size(0), query.sym_size(1), 1, key.sym_size(2)}, query);
}

at::Tensor attn_value_fp8_matmul(const at::Tensor& attn, const at::Tensor& value) {
  return empty({attn.sym_size(0), attn.sym_size(1), 1, value.sym_size(2)}, attn);
}

at::Tensor rwkv_linear_attention_v4(const at::Tensor&, const at::Tensor&, const at::Tensor& key,
                                    const at::Tensor&, const at::Tensor&, const at::Tensor&,
                                    const at::Tensor&) {
  return at::empty_symint(key.sym_sizes(), key.options());
}

at::Tensor rwkv_linear_attention_v5(const at::Tensor&, const at::Tensor&, const at::Tensor&,
                                    const at::Tensor& key, const at::Tensor&, const at::Tensor&) {
  return empty({key.sym_size(0), key.sym_size(2), key.sym_size(1), key.sym_size(3)}, key);
}

at::Tensor rwkv_time_shift(const at::Tensor& hidden, const at::Tensor&, const at::Tensor& mix) {
  return empty({mix.sym_size(0), hidden.sym_size(0), hidden.sym_size(1), hidden.sym_size(2)}, hidden);
}

}  // namespace tolvane::shapes
