"""Formats with two linear codes to a byte: q4_0 and q4_1."""

from __future__ import annotations

import torch
from torch import Tensor

from .search import HALF_MAX, as_half, best_line, best_scale, check_range, line_codes, quotient

# Code -8 has no positive partner, so a negative scale is as good as a positive one. The whole
# numbers find the scale of a block that the format can hold exactly; the others narrow the search
# near the ends of the code range, where the best scales of other blocks lie.
Q4_0_PEAKS = (
    *(-8.0, 7.0, 6.0, 5.0, 4.0, 3.0, 2.0, 1.0),
    *(-9.5, -9.0, -8.7, -8.4, -8.2, -7.8, -7.6, -7.4, -7.2, -6.8, -6.5),
    *(8.5, 8.0, 7.75, 7.5, 7.25, 6.75, 6.5, 6.25, 5.75),
)


def pack_nibbles(codes: Tensor) -> Tensor:
    """[blocks, 64] of uint8 codes 0..15 to [blocks, 32] bytes.

    Element j is the low nibble of byte j, element j + 32 the high one.
    """
    low, high = codes.chunk(2, dim=1)
    return low | (high << 4)


def unpack_nibbles(values: Tensor) -> Tensor:
    """The inverse of `pack_nibbles`."""
    return torch.cat([values & 15, values >> 4], dim=1)


def encode_q4_0(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Codes of value = (code - 8) * d with the half scale d of least squared error.

    blocks: [blocks, 64] of finite float. A block of zeros gets scale 0 and code 8. Weights above
    524032 (8 times the largest half) raise ValueError.
    """
    check_range(blocks, "q4_0", 8 * HALF_MAX, "its scale is a half")
    scale = best_scale(blocks, Q4_0_PEAKS, _q4_0_levels, as_half)
    codes = (_q4_0_levels(quotient(blocks, scale)) + 8).to(torch.uint8)
    return pack_nibbles(codes), scale.half().view(torch.uint8)


def decode_q4_0(values: Tensor, scales: Tensor) -> Tensor:
    """(code - 8) * d. values: [blocks, 32], scales: [blocks, 2]; returns [blocks, 64] of float."""
    return (unpack_nibbles(values).float() - 8) * scales.view(torch.float16).float()


def encode_q4_1(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Codes of value = code * d + m with the halves d and m of least squared error.

    blocks: [blocks, 64] of finite float. Weights above 65504 (the largest half) raise ValueError.
    """
    check_range(blocks, "q4_1", HALF_MAX, "its minimum is a half")
    slope, minimum = best_line(blocks, 15)
    codes = line_codes(blocks, slope, minimum, 15).to(torch.uint8)
    return pack_nibbles(codes), torch.cat([slope, minimum], dim=1).half().view(torch.uint8)


def decode_q4_1(values: Tensor, scales: Tensor) -> Tensor:
    """code * d + m. values: [blocks, 32], scales: [blocks, 4]; returns [blocks, 64] of float."""
    slope, minimum = scales.view(torch.float16).float().chunk(2, dim=1)
    return unpack_nibbles(values).float() * slope + minimum


def _q4_0_levels(x: Tensor) -> Tensor:
    return x.round().clamp_(-8, 7)
