"""Formats of 44-byte records with five-bit codes: q5_0 and q5_1.

A record is d (half), m (half), 8 bytes with the fifth bits, 32 bytes with the low nibbles.
"""

from __future__ import annotations

import torch
from torch import Tensor

from .four_bit import pack_nibbles, unpack_nibbles
from .search import HALF_MAX, as_half, best_line, best_scale, check_range, line_codes, quotient

# Whole numbers for blocks that the format can hold exactly, and steps near the ends of the range.
Q5_0_PEAKS = (
    *(-16.0, *(float(code) for code in range(1, 16))),
    *(-18.0, -17.2, -16.8, -16.4, -15.6, -15.3, -15.0, -14.6, -14.2),
    *(16.8, 16.4, 16.0, 15.7, 15.4, 14.7, 14.4, 13.6),
)


def pack_bits(bits: Tensor) -> Tensor:
    """[blocks, 64] of uint8 0 or 1 to the bytes [blocks, 8] of a little-endian 64-bit word."""
    places = torch.arange(8, dtype=torch.uint8)
    return (bits.view(-1, 8, 8) << places).sum(2, dtype=torch.uint8)


def unpack_bits(word: Tensor) -> Tensor:
    """The inverse of `pack_bits`."""
    places = torch.arange(8, dtype=torch.uint8)
    return (word[:, :, None] >> places & 1).flatten(1)


def encode_q5_0(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Records of value = (code - 16) * d with the half scale d of least squared error.

    blocks: [blocks, 64] of finite float. The field m is written as 0. A block of zeros gets scale
    0 and code 16. Weights above 1048064 (16 times the largest half) raise ValueError.
    """
    check_range(blocks, "q5_0", 16 * HALF_MAX, "its scale is a half")
    scale = best_scale(blocks, Q5_0_PEAKS, _q5_0_levels, as_half)
    codes = (_q5_0_levels(quotient(blocks, scale)) + 16).to(torch.uint8)
    return _records(scale, torch.zeros_like(scale), codes)


def decode_q5_0(records: Tensor, scales: Tensor) -> Tensor:
    """(code - 16) * d. records: [blocks, 44], scales: [blocks, 0]; returns [blocks, 64]."""
    slope, _, codes = _fields(records)
    return (codes - 16) * slope


def encode_q5_1(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Records of value = code * d + m with the halves d and m of least squared error.

    blocks: [blocks, 64] of finite float. Weights above 65504 (the largest half) raise ValueError.
    """
    check_range(blocks, "q5_1", HALF_MAX, "its minimum is a half")
    slope, minimum = best_line(blocks, 31)
    codes = line_codes(blocks, slope, minimum, 31).to(torch.uint8)
    return _records(slope, minimum, codes)


def decode_q5_1(records: Tensor, scales: Tensor) -> Tensor:
    """code * d + m. records: [blocks, 44], scales: [blocks, 0]; returns [blocks, 64] of float."""
    slope, minimum, codes = _fields(records)
    return codes * slope + minimum


def _q5_0_levels(x: Tensor) -> Tensor:
    return x.round().clamp_(-16, 15)


def _records(slope: Tensor, minimum: Tensor, codes: Tensor) -> tuple[Tensor, Tensor]:
    head = torch.cat([slope, minimum], dim=1).half().view(torch.uint8)
    records = torch.cat([head, pack_bits(codes >> 4), pack_nibbles(codes & 15)], dim=1)
    return records, records[:, :0]


def _fields(records: Tensor) -> tuple[Tensor, Tensor, Tensor]:
    """d and m, [blocks, 1], and the codes, [blocks, 64], all in float."""
    head, fifth, low = records.split([4, 8, 32], dim=1)
    slope, minimum = head.clone().view(torch.float16).float().chunk(2, dim=1)
    codes = unpack_nibbles(low) | (unpack_bits(fifth) << 4)
    return slope, minimum, codes.float()
