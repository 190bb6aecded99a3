"""What is measured: one function per operator, which yields its cases."""

from __future__ import annotations

from typing import Callable, Iterator

import torch
from torch import Tensor
from torch.nn import functional as F

import quarn
import tolvane
from harness import Case, copies_needed

Call = Callable[[int], Tensor]
Weights = list[list[Tensor]]
TYPES = {
    "float": torch.float32,
    "half": torch.float16,
    "bfloat16": torch.bfloat16,
    "double": torch.float64,
}


def copies(sample: Tensor, weights: int, rotate: bool) -> Weights:
    """Copies of a group of `weights` tensors: more than caches hold, or one without `rotate`."""
    count = copies_needed(weights * sample.numel() * sample.element_size()) if rotate else 1
    return [[sample.clone() for _ in range(weights)] for _ in range(count)]


def on_xpu(weights: Weights) -> Weights:
    """The same on `xpu`."""
    return [[weight.to("xpu") for weight in group] for group in weights]


def mlp_call(row: Tensor, packed: Weights, state: int, hidden: int, qtype: int) -> Call:
    """The operator on the copy that the number of the call picks."""
    return lambda number: tolvane.mlp_forward_xpu(
        row, *packed[number % len(packed)], 1, state, hidden, qtype
    )


def dense_mlp_call(row: Tensor, dense: Weights) -> Call:
    """silu(linear(x, gate)) * linear(x, up) on the CPU."""

    def run(number: int) -> Tensor:
        gate, up = dense[number % len(dense)]
        return F.silu(F.linear(row, gate)) * F.linear(row, up)

    return run


def mlp_cases(name: str, state: int, hidden: int, rotate: bool = True) -> Iterator[Case]:
    """Every format and type of one size, against the dense peer in float."""
    x = torch.randn(1, state)
    peer = dense_mlp_call(x, copies(torch.randn(hidden, state), 2, rotate))
    for format in quarn.MLP_FORMATS:
        entry = quarn.FORMATS[format]
        packed = on_xpu(copies(quarn.synthetic(format, hidden, state), 2, rotate))
        size = 2 * entry.packed_bytes(hidden, state)
        for kind, dtype in TYPES.items():
            ours = mlp_call(x.to(dtype).to("xpu"), packed, state, hidden, entry.qtype)
            yield Case(name, f"{state} x {hidden}", kind, format, size, ours, peer)


def mlp(quick: bool) -> Iterator[Case]:
    """The fused gated MLP, at the size of a 7-billion-parameter model and smaller."""
    if not quick:
        yield from mlp_cases("mlp", 256, 768)
        yield from mlp_cases("mlp", 2048, 5504)
    yield from mlp_cases("mlp", 4096, 11008)


def call(quick: bool) -> Iterator[Case]:
    """The smallest call: what a call costs before any work."""
    yield from mlp_cases("call", 64, 2, rotate=False)


def dense_linear_call(x: Tensor, weights: Weights) -> Call:
    """torch.nn.functional.linear with the copy that the number of the call picks."""
    return lambda number: F.linear(x, weights[number % len(weights)][0])


def linear(quick: bool) -> Iterator[Case]:
    """PyTorch's own linear with a dense weight on `xpu`, against the CPU's in float."""
    size = 4096
    weight = torch.randn(size, size)
    peer_weights = copies(weight, 1, rotate=True)
    for rows in (1, 16) if quick else (1, 2, 4, 8, 16, 32, 64):
        x = torch.randn(rows, size)
        for kind, dtype in TYPES.items():
            dense = copies(weight.to(dtype), 1, rotate=True)
            ours = dense_linear_call(x.to(dtype).to("xpu"), on_xpu(dense))
            shape = f"{rows} x {size}^2"
            bytes_read = dense[0][0].numel() * dense[0][0].element_size()
            peer = dense_linear_call(x, peer_weights)
            yield Case("linear", shape, kind, "dense", bytes_read, ours, peer)


def overhead(quick: bool) -> Iterator[Case]:
    """The smallest operator of PyTorch's: 16 floats plus 1, 100 times per call."""
    x = torch.ones(16)

    def adds(x: Tensor) -> Call:
        def run(number: int) -> Tensor:
            for _ in range(100):
                sum = x + 1
            return sum

        return run

    yield Case("overhead", "100 x 16", "float", "dense", 100 * 16 * 4, adds(x.to("xpu")), adds(x))


ENTRIES: list[Callable[[bool], Iterator[Case]]] = [call, mlp, linear, overhead]
