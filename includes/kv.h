#pragma once
// The two products of decoding attention against a cache in 8-bit floating point. A cache byte is the upper
// half of a half: it stands for the half (byte << 8) | 0x80, so that no byte is zero, and both 0x7C and 0x7F
// are NaN.

#include <ATen/core/Tensor.h>

namespace tolvane {

/// Scores of one new token: result[b, h, 0, l] = sum over d of query[b, h, 0, d] * key[b, h / (H / KVH), l,
/// d].
///
/// `query` is [B, H, 1, 128] of float, half or bfloat16, `key` [B, KVH, L, 128] of bytes; KVH divides H. The
/// first two strides are free, the elements of a row of `query` and all rows of a head of `key` lie next to
/// each other: key.stride(2) is 128. Returns [B, H, 1, L] in query's type, in which products and sums are
/// rounded. Raises c10::Error where one of this fails; another element type of `query`, in a call whose sizes
/// fit, writes "unsupported dtype" to the standard error stream and ends the process with status 2.
at::Tensor query_key_fp8_matmul(const at::Tensor& query, const at::Tensor& key);

/// Weighted sums: result[b, h, 0, r] = sum over l of attn[b, h, 0, l] * value[b, h / (H / KVH), r, l].
///
/// `attn` is [B, H, 1, L] of float, half or bfloat16, `value` [B, KVH, D, L] of bytes, positions next to each
/// other; D is a multiple of 4. The other strides are free. Returns [B, H, 1, D] in attn's type. Errors as
/// above.
at::Tensor attn_value_fp8_matmul(const at::Tensor& attn, const at::Tensor& value);

}  // namespace tolvane
