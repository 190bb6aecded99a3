#pragma once
// Rotary position embedding in the rotate-half form: column c of a head pairs with column c + D / 2, and the
// pair (x0, x1) turns by an angle: (cos x0 - sin x1, cos x1 + sin x0), computed in float for all element
// types.
//
// Rotated tensors and their outputs are [B, H, S, D] of half, float, double or bfloat16, with any strides; D
// is even. An output has the sizes of its input and may be its input itself. q and k may differ in H.
// Everything is on one XPU device. Raises c10::Error, before anything is submitted, where one of this fails.

#include <ATen/core/Tensor.h>

namespace tolvane {

/// Turns q and k by position * 10000^(-2 c / D). position_ids: [B, S] or [1, S] of int64.
void apply_rotary_embedding_q_and_k(const at::Tensor& q, const at::Tensor& k, const at::Tensor& position_ids,
                                    at::Tensor& q_out, at::Tensor& k_out);

/// The same for one tensor; `backward` turns the other way, which undoes it.
void apply_rotary_embedding_q_or_k(const at::Tensor& x, const at::Tensor& position_ids, at::Tensor& x_out,
                                   bool backward);

/// Turns q and k by the angles whose sines and cosines stand in the first halves of the rows of `sin` and
/// `cos`. These have q's rank, type and last size; their other sizes are broadcast against q's and k's.
void apply_rotary_embedding_q_and_k_cache_freq(const at::Tensor& q, const at::Tensor& k,
                                               const at::Tensor& sin, const at::Tensor& cos,
                                               at::Tensor& q_out, at::Tensor& k_out);

}  // namespace tolvane
