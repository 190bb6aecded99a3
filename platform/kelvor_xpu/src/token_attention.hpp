#pragma once
// Attention of single tokens, on the device's own threads.

#include <ATen/core/Tensor.h>

#include <optional>

namespace kelvor_xpu {

/// scaled_dot_product_attention where at most 32 query rows share a head's keys, without mask, dropout or
/// gradients, in float, half or bfloat16; nothing where the arguments are others, errors included.
std::optional<at::Tensor> token_attention(const at::Tensor& query, const at::Tensor& key,
                                          const at::Tensor& value, std::optional<double> scale, bool grouped);

}  // namespace kelvor_xpu
