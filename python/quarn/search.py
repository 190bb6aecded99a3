"""The scales of least squared error, as the formats store them."""

from __future__ import annotations

from typing import Callable, Sequence

import torch
from torch import Tensor

HALF_MAX = torch.finfo(torch.float16).max
FLOAT_MAX = torch.finfo(torch.float32).max

# How much of the block's range is cut off below and above where `best_line` starts.
CUTS = (
    *((0.0, 0.0), (0.02, 0.02), (0.04, 0.04), (0.07, 0.07), (0.1, 0.1)),
    *((0.0, 0.06), (0.06, 0.0), (-0.02, -0.02)),
)
LINE_ROUNDS = 3


def as_half(scale: Tensor) -> Tensor:
    """The nearest finite half, kept in float."""
    return scale.clamp(-HALF_MAX, HALF_MAX).half().float()


def as_float(scale: Tensor) -> Tensor:
    """The nearest finite float."""
    return scale.clamp(-FLOAT_MAX, FLOAT_MAX)


def quotient(x: Tensor, divisor: Tensor) -> Tensor:
    """x / divisor, and 0 where the divisor is 0."""
    return torch.where(divisor == 0, divisor, x / divisor)


def check_range(blocks: Tensor, format: str, limit: float, reason: str) -> None:
    """Raises ValueError where a weight is above `limit` in size."""
    largest = blocks.abs().max() if blocks.numel() else blocks.new_zeros(())
    if largest > limit:
        raise ValueError(
            f"{format} holds weights up to {limit:.0f}, because {reason}, but the weight has "
            f"{largest:g}; scale the weight down"
        )


def best_scale(
    blocks: Tensor,
    peaks: Sequence[float | Tensor],
    nearest: Callable[[Tensor], Tensor],
    stored: Callable[[Tensor], Tensor],
) -> Tensor:
    """The scale d of least squared error found for blocks of value = level * d.

    blocks: [blocks, elements] of finite float. Each of `peaks` is what the block's largest weight
    is divided by to get a scale to try. That scale gives levels, and the levels give the scale
    that fits them best: sum(x q) / sum(q^2), rounded by `stored`, the minimum of the parabola
    sum((x - d q)^2). The candidate that removes most from sum(x^2) wins. `nearest` rounds to the
    levels. Returns [blocks, 1]; a block of zeros gets 0.

    Computed relative to the largest weight, so that no square overflows or vanishes.
    """
    low, high = torch.aminmax(blocks, dim=1, keepdim=True)
    largest = torch.where(-low > high, low, high)
    relative = quotient(blocks, largest)
    best_gain = torch.zeros_like(largest)
    best = torch.zeros_like(largest)
    for peak in peaks:
        levels = nearest(relative * quotient(largest, stored(largest / peak)))
        products = (relative * levels).sum(1, keepdim=True)
        squares = levels.square().sum(1, keepdim=True)
        scale = stored(quotient(products, squares) * largest)
        ratio = quotient(scale, largest)
        gain = ratio * (2 * products - ratio * squares)
        better = gain > best_gain
        best_gain = torch.where(better, gain, best_gain)
        best = torch.where(better, scale, best)
    return best


def line_codes(blocks: Tensor, slope: Tensor, minimum: Tensor, top: int) -> Tensor:
    """The nearest codes 0..top of value = code * slope + minimum, in float."""
    return quotient(blocks - minimum, slope).round_().clamp_(0, top)


def best_line(blocks: Tensor, top: int) -> tuple[Tensor, Tensor]:
    """The halves (d, m) of least squared error found for value = code * d + m, code 0..top.

    blocks: [blocks, elements] of finite float. From each start, codes and the line through them
    are fitted in turns; the slope is rounded to half first, and m makes up for its rounding as
    far as a half can. Returns two tensors [blocks, 1]; a block of equal weights gets d = 0.
    """
    low, high = torch.aminmax(blocks, dim=1, keepdim=True)
    mean = blocks.mean(1, keepdim=True)
    centred = blocks - mean
    best_error = torch.full_like(low, float("inf"))
    best_slope, best_minimum = torch.zeros_like(low), torch.zeros_like(low)
    for below, above in CUTS:
        minimum = as_half(low + below * (high - low))
        slope = as_half((1 - below - above) * (high - low) / top)
        for _ in range(LINE_ROUNDS):
            codes = line_codes(blocks, slope, minimum, top)
            error = (codes * slope + minimum - blocks).square_().sum(1, keepdim=True)
            better = error < best_error
            best_error = torch.where(better, error, best_error)
            best_slope = torch.where(better, slope, best_slope)
            best_minimum = torch.where(better, minimum, best_minimum)
            middle = codes.mean(1, keepdim=True)
            codes -= middle
            spread = codes.square().sum(1, keepdim=True)
            slope = as_half(quotient((centred * codes).sum(1, keepdim=True), spread))
            minimum = as_half(mean - slope * middle)
    return best_slope, best_minimum
