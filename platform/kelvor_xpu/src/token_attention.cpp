#include "token_attention.hpp"

#include <ATen/core/grad_mode.h>
#include <ATen/ops/empty.h>

#include <algorithm>
#include <cmath>
#include <sycl/pool.hpp>

#include "alias.hpp"
#include "allocator.hpp"
#include "attention_kernels.hpp"
#include "settings.hpp"

namespace kelvor_xpu {
namespace {

/// Multiply-adds that are worth a thread's attention.
constexpr int64_t smallest_piece = int64_t{1} << 15;

std::optional<ElementType> element_type(c10::ScalarType type) {
  if (type == at::kFloat) return ElementType::single;
  if (type == at::kHalf) return ElementType::half;
  if (type == at::kBFloat16) return ElementType::bfloat16;
  return std::nullopt;
}

bool is_taken(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value, bool grouped) {
  for (const at::Tensor* x : {&query, &key, &value}) {
    if (x->dim() != 4 || x->numel() == 0 || x->is_neg() || x->scalar_type() != query.scalar_type() ||
        (x->stride(3) != 1 && x->size(3) != 1) || (x->requires_grad() && at::GradMode::is_enabled())) {
      return false;
    }
  }
  const int64_t heads = query.size(1), key_heads = key.size(1);
  const bool fits = heads == key_heads || (grouped && heads % key_heads == 0);
  return fits && key.size(0) == query.size(0) && value.size(0) == query.size(0) &&
         value.size(1) == key_heads && key.size(3) == query.size(3) && value.size(2) == key.size(2) &&
         heads / key_heads * query.size(2) <= attention_rows;
}

}  // namespace

std::optional<at::Tensor> token_attention(const at::Tensor& query, const at::Tensor& key,
                                          const at::Tensor& value, std::optional<double> scale,
                                          bool grouped) {
  const std::optional<ElementType> type = element_type(query.scalar_type());
  if (!type.has_value() || !is_taken(query, key, value, grouped)) return std::nullopt;
  settings();  // the number of threads
  const int64_t batch = query.size(0), heads = query.size(1), tokens = query.size(2), depth = query.size(3);
  const int64_t key_heads = key.size(1), length = key.size(2), value_depth = value.size(3);
  const int64_t group = heads / key_heads, rows = group * tokens;
  const int64_t padded_depth = (depth + 7) / 8 * 8;
  const float factor =
      scale.has_value() ? static_cast<float>(*scale) : 1.0F / std::sqrt(static_cast<float>(depth));
  const auto size = static_cast<int64_t>(query.element_size());
  const auto at = [&](const at::Tensor& x, int64_t b, int64_t head, int64_t row) {
    return static_cast<const char*>(x.data_ptr()) +
           (b * x.stride(0) + head * x.stride(1) + row * x.stride(2)) * size;
  };
  at::Tensor out = at::empty({batch, heads, tokens, value_depth}, query.options());

  const int64_t shared = batch * key_heads, pieces = (length + attention_keys - 1) / attention_keys;
  const int64_t row_partial = value_depth + 2, partial_size = rows * row_partial;
  const int64_t query_floats = shared * rows * padded_depth;
  const c10::DataPtr memory =
      scratch_allocator()->allocate((query_floats + shared * pieces * partial_size) * sizeof(float));
  auto* const queries = static_cast<float*>(memory.get());
  float* const partials = queries + query_floats;
  for (int64_t s = 0; s < shared; ++s) {
    for (int64_t r = 0; r < rows; ++r) {
      scale_query(*type, at(query, s / key_heads, s % key_heads * group + r / tokens, r % tokens), depth,
                  padded_depth, factor, queries + (s * rows + r) * padded_depth);
    }
  }
  const int64_t work = rows * std::min(length, attention_keys) * (depth + value_depth);
  const auto grain = static_cast<std::size_t>(std::max(int64_t{1}, smallest_piece / work));
  sycl::host::parallel_for_pieces(
      static_cast<std::size_t>(shared * pieces), grain, [&](std::size_t begin, std::size_t end) {
        for (auto i = static_cast<int64_t>(begin); i < static_cast<int64_t>(end); ++i) {
          const int64_t s = i / pieces, first = i % pieces * attention_keys;
          const int64_t b = s / key_heads, head = s % key_heads;
          attend_to_piece(
              *type, {queries + s * rows * padded_depth, rows, depth, padded_depth, at(key, b, head, first),
                      key.stride(2), at(value, b, head, first), value.stride(2), value_depth,
                      std::min(attention_keys, length - first), partials + i * partial_size});
        }
      });
  for (int64_t s = 0; s < shared; ++s) {
    for (int64_t r = 0; r < rows; ++r) {
      // Rows of a group follow each other in the result as they do here.
      char* const to = static_cast<char*>(out.data_ptr()) + (s * rows + r) * value_depth * size;
      merge_pieces(*type, partials + s * pieces * partial_size + r * row_partial, pieces, partial_size,
                   value_depth, to);
    }
  }
  return out;
}

}  // namespace kelvor_xpu
