"""Operators for quantized large language models on XPU devices.

All arguments are positional. A tensor that an operator refuses raises RuntimeError before anything is submitted.
Packed weights are flat tensors of torch.uint8; quarn.pack makes them.
"""

from torch import Tensor

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
