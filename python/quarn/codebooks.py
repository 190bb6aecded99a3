"""Formats whose codes stand for the levels of a table: nf4, nf3 and fp4.

The levels of nf4 and nf3 are those of the normal-float quantile construction, stored as the bits
of their floats; fp4 has a sign and eight magnitudes, none of them zero.
"""

from __future__ import annotations

import struct

import torch
from torch import Tensor

from .five_bit import pack_bits, unpack_bits
from .four_bit import pack_nibbles, unpack_nibbles
from .search import HALF_MAX, as_half, best_scale, check_range, quotient

CELLS = 4096


class Levels:
    """A table of levels by code, and rounding to the nearest of them."""

    def __init__(self, by_code: list[float], more_peaks: tuple[float, ...]) -> None:
        """more_peaks: what the block's largest weight is tried as, besides each of the levels."""
        self.by_code = torch.tensor(by_code)
        rising, codes = self.by_code.sort()
        self.codes = codes.to(torch.uint8)
        self.middles = (rising[1:] + rising[:-1]) / 2
        self.limit = rising[-1].item()
        self.peaks = (*(level for level in by_code if level), *more_peaks)
        centres = ((torch.arange(CELLS) + 0.5) / CELLS * 2 - 1) * self.limit
        self.cells = rising[torch.bucketize(centres, self.middles)]

    def nearly_nearest(self, x: Tensor) -> Tensor:
        """The level nearest to the centre of x's cell among CELLS equal ones.

        Ten times as fast as the search of `nearest_code`, and good enough to compare scales.
        """
        cells = (x * (CELLS / 2 / self.limit) + CELLS / 2).clamp_(0, CELLS - 1).int()
        return self.cells.index_select(0, cells.view(-1)).view(x.shape)

    def nearest_code(self, x: Tensor) -> Tensor:
        """The code of the nearest level, uint8; of the lower one halfway between two."""
        return self.codes[torch.bucketize(x, self.middles)]

    def encode(self, blocks: Tensor, format: str) -> tuple[Tensor, Tensor]:
        """Codes [blocks, 64] of value = level * d, and the half scales d as bytes [blocks, 2]."""
        check_range(blocks, format, self.limit * HALF_MAX, "its scale is a half")
        scale = best_scale(blocks, self.peaks, self.nearly_nearest, as_half)
        return self.nearest_code(quotient(blocks, scale)), scale.half().view(torch.uint8)

    def decode(self, codes: Tensor, scales: Tensor) -> Tensor:
        """level * d. codes: [blocks, 64], scales: [blocks, 2]."""
        return self.by_code[codes.long()] * scales.view(torch.float16).float()


def _from_bits(words: str) -> list[float]:
    """The floats whose bits these hexadecimal words are."""
    return [struct.unpack(">f", bytes.fromhex(word))[0] for word in words.split()]


NF4 = Levels(
    _from_bits(
        "BF800000 BF3239B1 BF066B30 BECA32A0 BE91A24D BE3D353F BDBA7871 00000000 "
        "3DA2FAFF 3E24CAE3 3E7C04DD 3EAD033A 3EE1A4B8 3F1007AB 3F3913B3 3F800000"
    ),
    (*(0.85, 0.9, 0.94, 0.97, 1.03, 1.06, 1.1, 1.15), *(-0.85, -0.9, -0.95, -1.05, -1.1)),
)
NF3 = Levels(
    _from_bits("BF800000 BEF50EE3 BE5E5A6B 00000000 3E24CAE3 3EAD033A 3F1007AB 3F800000"),
    (
        *(0.8, 0.85, 0.9, 0.95, 1.05, 1.1, 1.15, 1.2, 1.25, 1.3, 1.4, 1.5),
        *(-0.8, -0.85, -0.9, -0.95, -1.05, -1.1, -1.15, -1.2, -1.25, -1.3, -1.4, -1.5),
    ),
)
FP4_MAGNITUDES = [0.03125, 0.5, 1.0, 1.5, 2.0, 3.0, 4.0, 6.0]
FP4 = Levels(
    FP4_MAGNITUDES + [-magnitude for magnitude in FP4_MAGNITUDES],
    (3.25, 3.5, 3.75, 4.25, 4.5, 4.75, 5.0, 5.25, 5.5, 5.75, 6.25, 6.5, 6.75, 7.0, 7.25),
)


def encode_nf4(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Codes of value = NF4[code] * d with the half scale d of least squared error.

    blocks: [blocks, 64] of finite float. Element j is the high nibble of byte j, element j + 32
    the low one. Weights above 65504 (the largest half) raise ValueError.
    """
    codes, scales = NF4.encode(blocks, "nf4")
    return pack_nibbles(codes.roll(32, dims=1)), scales


def decode_nf4(values: Tensor, scales: Tensor) -> Tensor:
    """NF4[code] * d. values: [blocks, 32], scales: [blocks, 2]; returns [blocks, 64] of float."""
    return NF4.decode(unpack_nibbles(values).roll(32, dims=1), scales)


def encode_nf3(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Codes of value = NF3[code] * d with the half scale d of least squared error.

    blocks: [blocks, 64] of finite float. First 8 bytes with bit 2 of each code, then 16 bytes with
    the two low bits of four elements each, the first in the highest bits. Weights above 65504
    (the largest half) raise ValueError.
    """
    codes, scales = NF3.encode(blocks, "nf3")
    fours = (codes & 3).view(-1, 16, 4) << torch.tensor([6, 4, 2, 0], dtype=torch.uint8)
    low = fours.sum(2, dtype=torch.uint8)
    return torch.cat([pack_bits(codes >> 2), low], dim=1), scales


def decode_nf3(values: Tensor, scales: Tensor) -> Tensor:
    """NF3[code] * d. values: [blocks, 24], scales: [blocks, 2]; returns [blocks, 64] of float."""
    high, low = values.split([8, 16], dim=1)
    fours = low[:, :, None] >> torch.tensor([6, 4, 2, 0], dtype=torch.uint8)
    return NF3.decode((fours & 3).flatten(1) | (unpack_bits(high) << 2), scales)


def encode_fp4(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Codes of value = FP4[code] * d with the half scale d of least squared error.

    blocks: [blocks, 64] of finite float. Bit 3 of a code is the sign. No level is 0: a zero
    beside other weights becomes 0.03125 * d in size, and a block of zeros gets scale 0. Weights
    above 393024 (6 times the largest half) raise ValueError.
    """
    codes, scales = FP4.encode(blocks, "fp4")
    return pack_nibbles(codes), scales


def decode_fp4(values: Tensor, scales: Tensor) -> Tensor:
    """FP4[code] * d. values: [blocks, 32], scales: [blocks, 2]; returns [blocks, 64] of float."""
    return FP4.decode(unpack_nibbles(values), scales)
