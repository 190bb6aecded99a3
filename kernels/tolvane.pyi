"""Operators for quantized large language models on XPU devices.

All arguments are positional. A tensor that an operator refuses raises RuntimeError before anything is submitted.
Packed weights are flat tensors of torch.uint8; quarn.pack makes them. Tensors that an operator writes are marked as
changed for autograd; no result requires a gradient but that of forward_new.
"""

from typing import List, Optional, Tuple

from torch import Tensor

def forward_new(input: Tensor, weights: Tensor, qtype: int, size_hint: int, /) -> Tensor:
    """A linear layer on packed weights: input times the transposed weight.

    input: [rows, state_size], contiguous; torch.half, float, double or bfloat16.
    weights: flat packed bytes in the format qtype: 2 (q4_0), 3 (q4_1), 6 (q5_0), 7 (q5_1), 8 (q8_0), 10 (nf4),
        11 (nf3), 15 (fp8_e4m3), 16 (fp4), 19 (fp8_e5m2, whose scales are not read), 21 (iq2_xxs) or 23 (q2_k); the last
        two not on devices of the IGX class. output_size follows from their length, 0 from no bytes. state_size is a
        multiple of 64, of 256 for the last two, which quantize a single row of input to 8 bits per element.
    size_hint: with more than 128, very wide q4_0 layers may be expanded slice by slice; otherwise of no effect.
    Returns [rows, output_size] in the element type of input; differentiable with respect to input.
    TILE_THRESHOLD and TILE_SIZE raise ValueError or IndexError on q4_0 calls where they do not begin with a number.
    """

def forward_qkv(
    input: Tensor,
    weight_q: Tensor,
    weight_k: Tensor,
    weight_v: Tensor,
    position_ids: Tensor,
    key_cache: Tensor,
    value_cache: Tensor,
    qtype: int,
    kv_length: int,
    head_dim: int,
    /,
) -> List[Tensor]:
    """What a decoder layer does for one token between norm and attention, in one launch: projects input to query, key
    and value, turns query and key by the position (base 10000), and writes key and value to row kv_length of the caches.

    input: [1, state_size], contiguous; torch.half, float, double or bfloat16.
    weight_q, weight_k, weight_v: packed bytes of rows of state_size elements in the format qtype, 2 (q4_0) or 19
        (fp8_e5m2), each a whole number of heads of head_dim rows. state_size is a multiple of 64, head_dim even.
    position_ids: torch.int64, of which the first element is read.
    key_cache, value_cache: [1, heads of keys, rows, head_dim] in input's type, the last stride 1; their storage holds
        the row kv_length, and one row more than they have.
    Returns the query [1, heads of queries, 1, head_dim], and views of the caches with one row more.
    """

def dequant(input: Tensor, weight: Tensor, qtype: int, /) -> Tensor:
    """The dense matrix [output_size, state_size] of a packed weight.

    input gives its second size, which is state_size, and its element type; none of its elements is read.
    weight: flat packed bytes in the format qtype: 2, 8, 10, 15, 16, 19 or 21.
    """

def apply_rotary_embedding_half_q_and_k(
    q: Tensor, k: Tensor, position_ids: Tensor, q_out: Tensor, k_out: Tensor, /
) -> None:
    """Rotary position embedding of q and k: columns c and c + D / 2 turn by position * 10000**(-2 * c / D).

    q, k: [B, H, S, D] of torch.half, float, double or bfloat16, any strides; D even, H may differ.
    position_ids: [B, S] or [1, S] of torch.int64.
    q_out, k_out: written; of the sizes of q and k, and possibly q and k themselves.
    """

def apply_rotary_embedding_half_q_or_k(x: Tensor, position_ids: Tensor, x_out: Tensor, backward: bool, /) -> None:
    """The same for one tensor. With backward the angles are negative, which undoes it."""

def apply_rotary_embedding_half_q_and_k_cache_freq(
    q: Tensor, k: Tensor, sin: Tensor, cos: Tensor, q_out: Tensor, k_out: Tensor, /
) -> None:
    """Rotary position embedding of q and k by tables of sines and cosines.

    sin, cos: of q's rank, type and last size; their other sizes are broadcast against q's and k's. The first half of
        a row serves both columns of a pair, the second is not read.
    """

def bmm(A: Tensor, B: Tensor, C: Tensor, /) -> Tensor:
    """C[b] = A[b] @ B[b] for every b, into C, which is returned.

    A: [batch, M, N], B: [batch, N, P], C: [batch, M, P], all contiguous and of torch.float. C may be larger: its first
    batch * M * P elements are written.
    """

def fused_rms_norm(
    input: Tensor, normalized_shape: Tuple[int, ...], weight: Optional[Tensor], bias: Optional[Tensor], eps: float, /
) -> Tensor:
    """input / sqrt(mean(input**2) + eps) * weight + bias over the last len(normalized_shape) dimensions.

    input: torch.half, float, double or bfloat16, any strides. The values of normalized_shape are not read.
    weight, bias: None, or as many elements as a row, of input's type and on its device.
    Returns a new contiguous tensor; an empty one on the CPU where a row is longer than 32 bytes for each work-item of
    the device's largest work-group (16384 halves, 8192 floats, 4096 doubles where that is 1024).
    """

def fused_layer_norm(
    input: Tensor, normalized_shape: Tuple[int, ...], weight: Optional[Tensor], bias: Optional[Tensor], eps: float, /
) -> Tensor:
    """(input - mean) / sqrt(variance + eps) * weight + bias, as fused_rms_norm otherwise.

    The variance is mean(input**2) - mean**2; a negative one, which rounding can make, counts as 0 together with eps.
    """

def mlp_forward_xpu(
    input: Tensor,
    weight_gate: Tensor,
    weight_up: Tensor,
    batch_size: int,
    state_size: int,
    output_size: int,
    qtype: int,
    /,
) -> Tensor:
    """The gated feed-forward step of a decoder layer for one token: silu(gate @ input) * (up @ input), in one launch.

    input: batch_size * state_size elements, contiguous; torch.half, float, double or bfloat16. batch_size must be 1.
    weight_gate, weight_up: packed bytes of output_size rows of state_size elements in the format qtype,
        2 (q4_0) or 19 (fp8_e5m2). state_size is a multiple of 64, output_size even, their product below 2**31.
    Returns [1, output_size] in the element type of input, on the device of weight_gate. Sums are made in that type.
    """

def query_key_fp8_matmul(query: Tensor, key: Tensor, /) -> Tensor:
    """Scores of one new token against an FP8 key cache: the dot products of each query head with all its keys.

    query: [B, H, 1, 128]; torch.float, half or bfloat16. Another type ends the process.
    key: [B, KVH, L, 128] of cache bytes (quarn.fp8_cache), each row 128 bytes after the one before (key.stride(2));
        KVH divides H.
    Returns [B, H, 1, L] in the element type of query. Neither scaled nor masked.
    """

def attn_value_fp8_matmul(attn: Tensor, value: Tensor, /) -> Tensor:
    """The sums of an FP8 value cache's vectors, weighted by attn.

    attn: [B, H, 1, L]; torch.float, half or bfloat16. Another type ends the process.
    value: [B, KVH, D, L] of cache bytes (quarn.fp8_cache), positions next to each other; KVH divides H, 4 divides D.
    Returns [B, H, 1, D] in the element type of attn.
    """

def rwkv_linear_attention_v4(
    time_decay: Tensor,
    time_first: Tensor,
    key: Tensor,
    value: Tensor,
    num_state: Tensor,
    den_state: Tensor,
    max_state: Tensor,
    /,
) -> Tensor:
    """The recurrent attention of RWKV version 4 over a sequence. Updates the three states in place.

    time_decay, time_first: [C]; the decay is added to the running exponent, as it is.
    key, value: [B, T, C]; the states: [B, C]. One element type, contiguous; C is a multiple of 32.
    Types of time_decay and key: (bfloat16 or float, float), (bfloat16, bfloat16), (half, half).
    Returns [B, T, C] in the element type of key.
    """

def rwkv_linear_attention_v5(
    time_decay: Tensor, time_first: Tensor, receptance: Tensor, key: Tensor, value: Tensor, state: Tensor, /
) -> Tensor:
    """The recurrent attention of RWKV version 5 over a sequence, in float. Updates state in place.

    time_decay, time_first: [H, 64]; the decay is a factor, as it is.
    receptance, key, value: [B, H, T, 64] with the same strides. state: [B, H, 64, 64].
    Returns [B, T, H, 64].
    """

def rwkv_time_shift(hidden: Tensor, shifted: Tensor, mix: Tensor, /) -> Tensor:
    """Mixes of hidden states with their shifted copy: hidden * mix[m] + shifted * (1 - mix[m]) for every m.

    hidden, shifted: [B, T, C]; mix: [M, 1, C]; all contiguous, C is a multiple of 64. The first two sizes of shifted
        and the second of mix may differ, if there are as many elements at least.
    Types of hidden and mix: (float, bfloat16 or float), (bfloat16, bfloat16), (half, half).
    Returns [M, B, T, C] in the element type of hidden.
    """

def dequantize_rows(input: Tensor, weight: Tensor, qtype: int, state_size: int, /) -> Tensor:
    """Rows of a packed table, as an embedding looks them up.

    input: [B, L] of torch.int64, each the number of a row.
    weight: flat packed bytes in q2_k, rows of state_size elements, a multiple of 256.
    Returns [B, L, state_size] of torch.float on the device of weight. A qtype other than 23 (q2_k) is no error: nothing
    is written to the result then.
    """
