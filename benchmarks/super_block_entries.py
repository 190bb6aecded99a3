"""What the formats of 256 elements are measured on."""

from __future__ import annotations

from typing import Callable, Iterator

import torch
from torch import Tensor
from torch.nn import functional as F

import tolvane
from dense_peers import linear_peers
from harness import TYPES_AND_DOUBLE, Case, copies_needed

Call = Callable[[int], object]

# The format's number, the bytes of a block, and where its scales stand, which are halves.
FORMATS = {"iq2_xxs": (21, 66, (0,)), "q2_k": (23, 84, (80, 82))}


def random_blocks(format: str, rows: int, columns: int) -> Tensor:
    """A packed weight of random bytes with small scales."""
    _, size, scales = FORMATS[format]
    blocks = torch.randint(0, 256, (rows * columns // 256, size), dtype=torch.uint8)
    for place in scales:
        blocks[:, place : place + 2] = torch.tensor([0.01], dtype=torch.half).view(torch.uint8)
    return blocks.flatten()


def forward_call(x: Tensor, weights: list[Tensor], qtype: int) -> Call:
    """forward_new with the copy that the number of the call picks."""
    return lambda number: tolvane.forward_new(x, weights[number % len(weights)], qtype, 0)


def forward(quick: bool) -> Iterator[Case]:
    """A layer of 4096 x 4096 for one row, and expanded for many."""
    size = 4096
    for rows in (1,) if quick else (1, 2, 64):
        x = torch.randn(rows, size)
        peers = linear_peers(x, size)
        for format, (qtype, _, _) in FORMATS.items():
            packed = random_blocks(format, size, size)
            copies = [packed.to("xpu") for _ in range(copies_needed(packed.numel()))]
            for kind, dtype in TYPES_AND_DOUBLE.items():
                ours = forward_call(x.to(dtype).to("xpu"), copies, qtype)
                shape, bytes_ = f"{rows} x {size}^2", packed.numel()
                yield Case("forward", shape, kind, format, bytes_, ours, peers[kind])


def expansion(quick: bool) -> Iterator[Case]:
    """dequant, against a copy of as many bytes on the CPU, and dequantize_rows, against an embedding."""
    size, tokens = 4096, 512
    packed = random_blocks("iq2_xxs", size, size).to("xpu")
    for kind, dtype in TYPES_AND_DOUBLE.items():
        like = torch.empty(1, size, dtype=dtype, device="xpu")
        source = torch.zeros(size, size, dtype=dtype)
        target = torch.empty_like(source)
        bytes_ = source.numel() * source.element_size()
        ours: Call = lambda _, like=like: tolvane.dequant(like, packed, 21)
        peer: Call = lambda _, target=target, source=source: target.copy_(source)
        yield Case("dequant", f"{size}^2", kind, "iq2_xxs", bytes_, ours, {"copy": peer})
    table, dense = random_blocks("q2_k", 32000, size).to("xpu"), torch.randn(32000, size)
    index = torch.randint(0, 32000, (1, tokens))
    rows = index.to("xpu")
    yield Case(
        "rows",
        f"{tokens} x {size}",
        "float",
        "q2_k",
        tokens * size * 4,
        lambda _: tolvane.dequantize_rows(rows, table, 23, size),
        {"float": lambda _: F.embedding(index, dense)},
    )


ENTRIES = [forward, expansion]
