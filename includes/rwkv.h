#pragma once
// The recurrent attention of RWKV layers, and the token-shift mixes before it.

#include <ATen/core/Tensor.h>

namespace tolvane {

/// Version 4: a numerator, a denominator and a running exponent per channel, over a whole sequence.
///
/// `key` and `value` are [B, T, C], the states [B, C], in one element type; `time_decay` (added to the
/// exponent at each step) and `time_first` (the current token's bonus) are [C]. Types of time_decay and key:
/// (bfloat16 or float, float), (bfloat16, bfloat16), (half, half). All contiguous; C is a multiple of 32.
/// Returns [B, T, C] in key's type, in which every step is rounded, and updates the states in place, so that
/// the next call continues the sequence. Raises c10::Error where one of this fails, and std::runtime_error
/// "unsupported dtype" for other types.
at::Tensor rwkv_linear_attention_v4(at::Tensor time_decay, at::Tensor time_first, at::Tensor key,
                                    at::Tensor value, at::Tensor num_state, at::Tensor den_state,
                                    at::Tensor max_state);

/// Version 5: a 64 by 64 matrix per head, to which each token adds the outer product of its key and value.
///
/// `receptance`, `key` and `value` are [B, H, T, 64] with the same strides, the last one 1; `time_decay` (a
/// factor on row i of the state) and `time_first` (the current token's bonus) are [H, 64], `state` is [B, H,
/// 64, 64], all three contiguous. All hold float. Returns [B, T, H, 64] and updates `state` in place. Raises
/// c10::Error where one of this fails.
at::Tensor rwkv_linear_attention_v5(at::Tensor time_decay, at::Tensor time_first, at::Tensor receptance,
                                    at::Tensor key, at::Tensor value, at::Tensor state);

/// Mixes of the hidden states and their shifted copy: result[m] = hidden * mix[m] + shifted * (1 - mix[m]).
///
/// `hidden` and `shifted` are [B, T, C], `mix` is [M, 1, C], all contiguous; C is a multiple of 64. The first
/// two sizes of `shifted` and the second of `mix` may differ: the elements are read in memory order, and
/// there must be enough of them. Types of hidden and mix: (float, bfloat16 or float), (bfloat16, bfloat16),
/// (half, half). Returns [M, B, T, C] in hidden's type. Errors as for version 4.
///
/// bfloat16 computes p = hidden * mix, q = 1 - mix, r = shifted * q and p + r, half d = hidden - shifted, e =
/// mix * d and shifted + e, each step rounded. Float takes half's form, in which the last two steps may
/// contract.
at::Tensor rwkv_time_shift(at::Tensor hidden, at::Tensor shifted, at::Tensor mix);

}  // namespace tolvane
