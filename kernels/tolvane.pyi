"""Operators for quantized large language models on XPU devices.

All arguments are positional. A tensor that an operator refuses raises RuntimeError before anything is submitted.
Packed weights are flat tensors of torch.uint8; quarn.pack makes them.
"""

from torch import Tensor

def forward_new(input: Tensor, weights: Tensor, qtype: int, size_hint: int, /) -> Tensor:
    """A linear layer on packed weights: input times the transposed weight.

    input: [rows, state_size], contiguous; torch.half, float, double or bfloat16.
    weights: flat packed bytes in the format qtype: 2 (q4_0), 3 (q4_1), 6 (q5_0), 7 (q5_1), 8 (q8_0), 10 (nf4),
        11 (nf3), 15 (fp8_e4m3), 16 (fp4) or 19 (fp8_e5m2, whose scales are not read). output_size follows from their
        length. state_size is a multiple of 64.
    size_hint: with more than 128, very wide q4_0 layers may be expanded slice by slice; otherwise of no effect.
    Returns [rows, output_size] in the element type of input.
    """

def dequant(input: Tensor, weight: Tensor, qtype: int, /) -> Tensor:
    """The dense matrix [output_size, state_size] of a packed weight.

    input gives its second size, which is state_size, and its element type; none of its elements is read.
    weight: flat packed bytes in the format qtype: 2, 8, 10, 15, 16 or 19.
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
