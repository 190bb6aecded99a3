"""PyTorch's own layers on the CPU: what a packed layer stands instead of."""

from __future__ import annotations

from typing import Callable

import torch
from torch import Tensor
from torch.nn import functional as F

from harness import TYPES, TYPES_AND_DOUBLE, copies_needed

Call = Callable[[int], object]
Weight = list[Tensor]
"""All tensors of one layer, which are read with each call."""
Product = Callable[[Tensor, Weight], Tensor]
Layer = Callable[[Tensor, list[Weight], Product], Tensor]
GROUP = 64
"""Weights of 4 bits that share a scale and a zero."""


def dense_product(x: Tensor, weight: Weight) -> Tensor:
    """x @ weight.T."""
    return F.linear(x, weight[0])


def four_bit_weight(outputs: int, inputs: int, dtype: torch.dtype) -> Weight:
    """Random weights of 4 bits with their scales and zeros, as PyTorch packs them."""
    codes = torch.randint(0, 16, (outputs, inputs), dtype=torch.int32)
    packed = torch.ops.aten._convert_weight_to_int4pack_for_cpu(codes, 2)
    return [packed, torch.full((inputs // GROUP, outputs, 2), 0.01, dtype=dtype)]


def four_bit_product(x: Tensor, weight: Weight) -> Tensor:
    """PyTorch's linear layer on weights of 4 bits."""
    return torch.ops.aten._weight_int4pack_mm_for_cpu(x, weight[0], GROUP, weight[1])


def rotated(weight: Weight, count: int, rotate: bool) -> list[list[Weight]]:
    """Groups of `count` copies: more than caches hold, or one."""
    size = count * sum(part.numel() * part.element_size() for part in weight)
    groups = copies_needed(size) if rotate else 1
    return [[[part.clone() for part in weight] for _ in range(count)] for _ in range(groups)]


def by_type(x: Tensor, outputs: int, count: int, rotate: bool, layer: Layer) -> dict[str, dict[str, Call]]:
    """For each of our types: the dense layer in that type and in float, and that on 4 bits.

    The latter is in bfloat16, for which alone PyTorch has a fast kernel.
    """

    def call(x: Tensor, weight: Weight, product: Product) -> Call:
        groups = rotated(weight, count, rotate)
        return lambda number: layer(x, groups[number % len(groups)], product)

    inputs = x.shape[-1]
    weight = torch.randn(outputs, inputs)
    calls = {name: call(x.to(dtype), [weight.to(dtype)], dense_product) for name, dtype in TYPES.items()}
    if inputs % GROUP == 0 and outputs % 16 == 0:  # as its kernel wants them
        few = four_bit_weight(outputs, inputs, torch.bfloat16)
        calls["4 bits"] = call(x.to(torch.bfloat16), few, four_bit_product)
    return {own: {name: calls[name] for name in (own, "float", "4 bits") if name in calls} for own in TYPES_AND_DOUBLE}


def linear_peers(x: Tensor, outputs: int) -> dict[str, dict[str, Call]]:
    """x @ weight.T; x is [rows, inputs] in float."""
    return by_type(x, outputs, 1, True, lambda x, weights, product: product(x, weights[0]))


def mlp_peers(x: Tensor, outputs: int, rotate: bool) -> dict[str, dict[str, Call]]:
    """silu(x @ gate.T) * (x @ up.T)."""

    def gated(x: Tensor, weights: list[Weight], product: Product) -> Tensor:
        return F.silu(product(x, weights[0])) * product(x, weights[1])

    return by_type(x, outputs, 2, rotate, gated)
