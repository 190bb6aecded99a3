"""What is measured: one function per operator, which yields its cases."""

from __future__ import annotations

from typing import Callable, Iterator

import torch
from torch import Tensor
from torch.nn import functional as F

import quarn
import row_entries
import sequence_entries
import super_block_entries
import tolvane
from dense_peers import linear_peers, mlp_peers
from harness import TYPES_AND_DOUBLE, Case, copies_needed

Call = Callable[[int], Tensor]
Weights = list[list[Tensor]]


def copies(sample: Tensor, weights: int, rotate: bool) -> Weights:
    """Copies of a group of `weights` tensors: more than caches hold, or one without `rotate`."""
    count = copies_needed(weights * sample.numel() * sample.element_size()) if rotate else 1
    return [[sample.clone() for _ in range(weights)] for _ in range(count)]


def on_xpu(weights: Weights) -> Weights:
    """The same on `xpu`."""
    return [[weight.to("xpu") for weight in group] for group in weights]


def mlp_call(row: Tensor, packed: Weights, state: int, hidden: int, qtype: int) -> Call:
    """The operator on the copy that the number of the call picks."""
    return lambda number: tolvane.mlp_forward_xpu(row, *packed[number % len(packed)], 1, state, hidden, qtype)


def mlp_cases(name: str, state: int, hidden: int, rotate: bool = True) -> Iterator[Case]:
    """Every format and type of one size."""
    x = torch.randn(1, state)
    peers = mlp_peers(x, hidden, rotate)
    for format in quarn.MLP_FORMATS:
        entry = quarn.FORMATS[format]
        packed = on_xpu(copies(quarn.synthetic(format, hidden, state), 2, rotate))
        size = 2 * entry.packed_bytes(hidden, state)
        for kind, dtype in TYPES_AND_DOUBLE.items():
            ours = mlp_call(x.to(dtype).to("xpu"), packed, state, hidden, entry.qtype)
            yield Case(name, f"{state} x {hidden}", kind, format, size, ours, peers[kind])


def mlp(quick: bool) -> Iterator[Case]:
    """The fused gated MLP, at the size of a 7-billion-parameter model and smaller."""
    if not quick:
        yield from mlp_cases("mlp", 256, 768)
        yield from mlp_cases("mlp", 2048, 5504)
    yield from mlp_cases("mlp", 4096, 11008)


def qkv(quick: bool) -> Iterator[Case]:
    """The fused projections of 32 heads over 8, of 128, against one dense layer of as many outputs."""
    state, sizes, head_dim, position = 4096, (4096, 1024, 1024), 128, 100
    x, ids = torch.randn(1, state), torch.tensor([position], device="xpu")
    peers = linear_peers(x, sum(sizes))
    for format in quarn.MLP_FORMATS:
        entry = quarn.FORMATS[format]
        bytes_read = sum(entry.packed_bytes(size, state) for size in sizes)
        sample = [quarn.synthetic(format, size, state) for size in sizes]
        groups = on_xpu([[w.clone() for w in sample] for _ in range(copies_needed(bytes_read))])
        for kind, dtype in TYPES_AND_DOUBLE.items():
            row = x.to(dtype).to("xpu")
            cache = torch.zeros(2, 1, 8, 2 * position, head_dim, dtype=dtype, device="xpu")
            keys, values = cache[:, :, :, :position]
            last = (entry.qtype, position, head_dim)
            ours: Call = lambda number, row=row, keys=keys, values=values, groups=groups, last=last: (
                tolvane.forward_qkv(row, *groups[number % len(groups)], ids, keys, values, *last)[0]
            )
            yield Case("qkv", f"{state} x {sum(sizes)}", kind, format, bytes_read, ours, peers[kind])


def call(quick: bool) -> Iterator[Case]:
    """The smallest call: what a call costs before any work."""
    yield from mlp_cases("call", 64, 2, rotate=False)


def dense_linear_call(x: Tensor, weights: Weights) -> Call:
    """torch.nn.functional.linear with the copy that the number of the call picks."""
    return lambda number: F.linear(x, weights[number % len(weights)][0])


def linear(quick: bool) -> Iterator[Case]:
    """PyTorch's own linear with a dense weight on `xpu`, against the CPU's."""
    size = 4096
    weight = torch.randn(size, size)
    for rows in (1, 16) if quick else (1, 2, 4, 8, 16, 64, 512):
        x = torch.randn(rows, size)
        peers = linear_peers(x, size)
        for kind, dtype in TYPES_AND_DOUBLE.items():
            dense = copies(weight.to(dtype), 1, rotate=True)
            ours = dense_linear_call(x.to(dtype).to("xpu"), on_xpu(dense))
            shape = f"{rows} x {size}^2"
            bytes_read = dense[0][0].numel() * dense[0][0].element_size()
            yield Case("linear", shape, kind, "dense", bytes_read, ours, peers[kind])


def packed_linear_call(x: Tensor, packed: Weights, qtype: int) -> Call:
    """forward_new with the copy that the number of the call picks."""
    return lambda number: tolvane.forward_new(x, packed[number % len(packed)][0], qtype, 0)


def forward_cases(name: str, formats: list[str], rows: int) -> Iterator[Case]:
    """A packed layer of 4096 x 4096 in every type."""
    size = 4096
    x = torch.randn(rows, size)
    peers = linear_peers(x, size)
    for format in formats:
        entry = quarn.FORMATS[format]
        packed = on_xpu(copies(quarn.synthetic(format, size, size), 1, rotate=True))
        for kind, dtype in TYPES_AND_DOUBLE.items():
            ours = packed_linear_call(x.to(dtype).to("xpu"), packed, entry.qtype)
            shape = f"{rows} x {size}^2"
            yield Case(name, shape, kind, format, entry.packed_bytes(size, size), ours, peers[kind])


def forward(quick: bool) -> Iterator[Case]:
    """The packed linear layer: one row of every format, a few rows where they stay packed, many by the dense route."""
    yield from forward_cases("forward", list(quarn.FORMATS), 1)
    for rows in (2, 8) if quick else (2, 4, 8, 14, 20):
        formats = ["q4_0", "q4_1", "nf4"] if rows <= 14 else ["q4_0", "q4_1"]
        yield from forward_cases("forward", formats, rows)
    yield from forward_cases("forward", ["q4_0"] if quick else list(quarn.FORMATS), 64)


def dequant(quick: bool) -> Iterator[Case]:
    """The expansion of a 4096 x 4096 weight, against a copy of as many bytes on the CPU."""
    size = 4096
    for format in ("q4_0", "q8_0", "nf4", "fp8_e4m3", "fp4", "fp8_e5m2"):
        entry = quarn.FORMATS[format]
        packed = quarn.synthetic(format, size, size).to("xpu")
        for kind, dtype in TYPES_AND_DOUBLE.items():
            like = torch.empty(1, size, dtype=dtype, device="xpu")
            source = torch.zeros(size, size, dtype=dtype)
            target = torch.empty_like(source)
            yield Case(
                "dequant",
                f"{size}^2",
                kind,
                format,
                source.numel() * source.element_size(),
                lambda number, like=like: tolvane.dequant(like, packed, entry.qtype),
                {"copy": lambda number, target=target, source=source: target.copy_(source)},
            )


def overhead(quick: bool) -> Iterator[Case]:
    """The smallest operator of PyTorch's: 16 floats plus 1, 100 times per call."""
    x = torch.ones(16)

    def adds(x: Tensor) -> Call:
        def run(number: int) -> Tensor:
            for _ in range(100):
                sum = x + 1
            return sum

        return run

    yield Case("overhead", "100 x 16", "float", "dense", 100 * 16 * 4, adds(x.to("xpu")), {"cpu": adds(x)})


ENTRIES: list[Callable[[bool], Iterator[Case]]] = [call, mlp, qkv, forward, dequant, linear, overhead]
ENTRIES += row_entries.ENTRIES + sequence_entries.ENTRIES + super_block_entries.ENTRIES
