"""Formats with two codes to a byte: element j in the low nibble of byte j, j + 32 in the high."""

from __future__ import annotations

import torch
from torch import Tensor

HALF_MAX = torch.finfo(torch.float16).max
Q4_0_LIMIT = 8 * HALF_MAX

# What the block's largest weight is divided by to get the scales that q4_0 tries. Code -8 has no
# positive partner, so a negative scale is as good as a positive one. The whole numbers find the
# scale of a block that the format can hold exactly; the others narrow the search near the ends of
# the code range, where the best scales of other blocks lie.
Q4_0_DIVISORS = (
    *(-8.0, 7.0, 6.0, 5.0, 4.0, 3.0, 2.0, 1.0),
    *(-9.5, -9.0, -8.7, -8.4, -8.2, -7.8, -7.6, -7.4, -7.2, -6.8, -6.5),
    *(8.5, 8.0, 7.75, 7.5, 7.25, 6.75, 6.5, 6.25, 5.75),
)


def pack_nibbles(codes: Tensor) -> Tensor:
    """[blocks, 64] of uint8 codes 0..15 to [blocks, 32] bytes."""
    low, high = codes.chunk(2, dim=1)
    return low | (high << 4)


def unpack_nibbles(values: Tensor) -> Tensor:
    """The inverse of `pack_nibbles`."""
    return torch.cat([values & 15, values >> 4], dim=1)


def encode_q4_0(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Codes of value = (code - 8) * d with the half scale d of least squared error.

    blocks: [blocks, 64] of finite float. Each candidate scale gives codes, and the codes give the
    scale that fits them best: sum(x q) / sum(q^2), rounded to half, the minimum of the parabola
    sum((x - d q)^2). The candidate that removes most from sum(x^2) wins. A block of zeros gets
    scale 0 and code 8. Weights above 524032 (8 times the largest half) raise ValueError.
    """
    low, high = torch.aminmax(blocks, dim=1, keepdim=True)
    largest = torch.where(-low > high, low, high)
    if largest.numel() and largest.abs().max() > Q4_0_LIMIT:
        raise ValueError(
            f"q4_0 holds weights up to {Q4_0_LIMIT:.0f}, because its scale is a half, but the "
            f"weight has {largest.abs().max():g}; scale the weight down"
        )
    best_gain = torch.zeros_like(largest)
    best_scale = torch.zeros_like(largest)
    for divisor in Q4_0_DIVISORS:
        codes = _q4_0_codes(blocks, _as_half(largest / divisor))
        products = (blocks * codes).sum(1, keepdim=True)
        squares = codes.square().sum(1, keepdim=True)
        scale = _as_half(products / squares.clamp(min=1))
        gain = scale * (2 * products - scale * squares)
        better = gain > best_gain
        best_gain = torch.where(better, gain, best_gain)
        best_scale = torch.where(better, scale, best_scale)
    codes = (_q4_0_codes(blocks, best_scale) + 8).to(torch.uint8)
    return pack_nibbles(codes), best_scale.half().view(torch.uint8)


def decode_q4_0(values: Tensor, scales: Tensor) -> Tensor:
    """(code - 8) * d. values: [blocks, 32], scales: [blocks, 2]; returns [blocks, 64] of float."""
    return (unpack_nibbles(values).float() - 8) * scales.view(torch.float16).float()


def _as_half(scale: Tensor) -> Tensor:
    """The nearest finite half, kept in float."""
    return scale.clamp(-HALF_MAX, HALF_MAX).half().float()


def _q4_0_codes(blocks: Tensor, scale: Tensor) -> Tensor:
    """The nearest codes -8..7 in float; all 0 where the scale is 0."""
    inverse = torch.where(scale == 0, scale, 1 / scale)
    return (blocks * inverse).round_().clamp_(-8, 7)
