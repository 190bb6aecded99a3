"""PyTorch's own layers on the CPU: what a packed layer stands instead of."""

from __future__ import annotations

from typing import Callable

import torch
from torch import Tensor
from torch.nn import functional as F

from harness import TYPES, TYPES_AND_DOUBLE, copies_needed

Call = Callable[[int], object]
Product = Callable[[Tensor, Tensor], Tensor]
GROUP = 64
"""Weights of 4 bits that share a scale and a zero."""


def four_bit_product(x: Tensor, outputs: int) -> tuple[Tensor, Product]:
    """PyTorch's linear layer on weights of 4 bits in x's type: a weight, and the layer."""
    inputs = x.shape[-1]
    codes = torch.randint(0, 16, (outputs, inputs), dtype=torch.int32)
    weight = torch.ops.aten._convert_weight_to_int4pack_for_cpu(codes, 2)
    scales = torch.full((inputs // GROUP, outputs, 2), 0.01, dtype=x.dtype)
    return weight, lambda x, weight: torch.ops.aten._weight_int4pack_mm_for_cpu(
        x, weight, GROUP, scales
    )


def rotated(weight: Tensor, count: int, rotate: bool) -> list[list[Tensor]]:
    """Groups of `count` copies: more than caches hold, or one."""
    size = count * weight.numel() * weight.element_size()
    groups = copies_needed(size) if rotate else 1
    return [[weight.clone() for _ in range(count)] for _ in range(groups)]


def by_type(
    x: Tensor, outputs: int, count: int, rotate: bool, layer: Callable[[Tensor, list[Tensor], Product], Tensor]
) -> dict[str, dict[str, Call]]:
    """For each of our types: the dense layer in that type and in float, and the one on 4 bits in bfloat16."""

    def call(x: Tensor, weight: Tensor, product: Product) -> Call:
        groups = rotated(weight, count, rotate)
        return lambda number: layer(x, groups[number % len(groups)], product)

    weight = torch.randn(outputs, x.shape[-1])
    calls = {name: call(x.to(dtype), weight.to(dtype), F.linear) for name, dtype in TYPES.items()}
    reduced = x.to(torch.bfloat16)
    if x.shape[-1] % GROUP == 0 and outputs % 16 == 0:  # as its kernel wants them
        calls["4 bits"] = call(reduced, *four_bit_product(reduced, outputs))
    wanted = {name: (name, "float", "4 bits") for name in TYPES_AND_DOUBLE}
    return {
        own: {name: calls[name] for name in dict.fromkeys(names) if name in calls}
        for own, names in wanted.items()
    }


def linear_peers(x: Tensor, outputs: int) -> dict[str, dict[str, Call]]:
    """x @ weight.T."""
    return by_type(x, outputs, 1, True, lambda x, weights, product: product(x, weights[0]))


def mlp_peers(x: Tensor, outputs: int, rotate: bool) -> dict[str, dict[str, Call]]:
    """silu(x @ gate.T) * (x @ up.T)."""
    return by_type(
        x,
        outputs,
        2,
        rotate,
        lambda x, weights, product: F.silu(product(x, weights[0])) * product(x, weights[1]),
    )
