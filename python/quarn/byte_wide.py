"""Formats with one byte per element."""

from __future__ import annotations

import torch
from torch import Tensor

# Which code the block's largest weight becomes while scales are searched. Equal steps over one
# octave suffice, because doubling a scale changes no rounding. Codes near 1 leave the products
# and sums of a kernel that works in half far from its limits, and reach down to 2^-16.
E5M2_PEAKS = tuple(1 + step / 32 for step in range(32))


def round_to_e5m2(x: Tensor) -> Tensor:
    """Round to nearest even onto the values of e5m2, subnormals included. |x| < 57344, float."""
    bits = x.view(torch.int32)
    odd = (bits >> 21) & 1
    normal = ((bits + (0xFFFFF + odd)) & ~0x1FFFFF).view(torch.float32)
    subnormal = (x * 2.0**16).round_() * 2.0**-16
    return torch.where(x.abs() < 2.0**-14, subnormal, normal)


def encode_fp8_e5m2(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Bytes of value = e5m2 * d with the float scale d of least squared error.

    blocks: [blocks, 64] of finite float. A byte is the upper half of the value's bits as a half.
    The search is that of `encode_q4_0`, over scales that give the largest weight a code from 1
    to 2; one of them is a power of two, so scaling is never worse than not to scale. A block of
    zeros gets scale 0 and bytes 0.
    """
    largest = blocks.abs().amax(1, keepdim=True)
    relative = torch.where(largest == 0, largest, blocks / largest)
    best_gain = torch.zeros_like(largest)
    best_scale = torch.zeros_like(largest)
    power_of_two_peak = 2 * torch.frexp(largest).mantissa
    for peak in (power_of_two_peak, *E5M2_PEAKS):
        codes = round_to_e5m2(relative * peak)
        products = (relative * codes).sum(1, keepdim=True)
        squares = codes.square().sum(1, keepdim=True)
        scale = torch.where(squares == 0, squares, products / squares)
        gain = scale * products
        better = gain > best_gain
        best_gain = torch.where(better, gain, best_gain)
        best_scale = torch.where(better, scale, best_scale)
    codes = round_to_e5m2(torch.where(best_scale == 0, best_scale, relative / best_scale))
    scales = best_scale * largest
    return codes.half().view(torch.uint8)[:, 1::2], scales.view(torch.uint8)


def decode_fp8_e5m2(values: Tensor, scales: Tensor) -> Tensor:
    """e5m2 * d. values: [blocks, 64], scales: [blocks, 4]; returns [blocks, 64] of float."""
    halves = torch.stack([torch.zeros_like(values), values], dim=-1).flatten(1)
    return halves.view(torch.float16).float() * scales.view(torch.float32)
