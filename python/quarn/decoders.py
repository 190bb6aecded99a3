"""What the blocks of each packed format stand for.

Every decoder takes the value bytes [blocks, value_bytes] and the scale bytes [blocks, scale_bytes] of
a format, and returns the elements [blocks, block_elements] in float. Encoding is done by the library
in native/.
"""

from __future__ import annotations

import struct

import torch
from torch import Tensor

from . import native


def _from_bits(words: str) -> Tensor:
    """The floats whose bits these hexadecimal words are."""
    return torch.tensor([struct.unpack(">f", bytes.fromhex(word))[0] for word in words.split()])


NF4 = _from_bits(
    "BF800000 BF3239B1 BF066B30 BECA32A0 BE91A24D BE3D353F BDBA7871 00000000 "
    "3DA2FAFF 3E24CAE3 3E7C04DD 3EAD033A 3EE1A4B8 3F1007AB 3F3913B3 3F800000"
)
NF3 = _from_bits("BF800000 BEF50EE3 BE5E5A6B 00000000 3E24CAE3 3EAD033A 3F1007AB 3F800000")
_FP4_MAGNITUDES = [0.03125, 0.5, 1, 1.5, 2, 3, 4, 6]
FP4 = torch.tensor(_FP4_MAGNITUDES + [-x for x in _FP4_MAGNITUDES])


def _e4m3(code: int) -> float:
    exponent, fraction = code >> 3 & 15, code & 7
    size = (1 + fraction / 8) * 2.0 ** (exponent - 7) if exponent else fraction * 2.0**-9
    return size if code < 128 else -size


E4M3 = torch.tensor([_e4m3(code) for code in range(256)])


def half_fields(scales: Tensor) -> tuple[Tensor, ...]:
    """The halves in each block's bytes, in float, [blocks, 1] each."""
    return scales.contiguous().view(torch.float16).float().split(1, dim=1)


def nibbles(values: Tensor) -> Tensor:
    """Element j is the low nibble of byte j, element j + 32 the high one."""
    return torch.cat([values & 15, values >> 4], dim=1)


def bits(word: Tensor) -> Tensor:
    """The bits of little-endian words, [blocks, 8 * bytes], 0 or 1."""
    return (word[:, :, None] >> torch.arange(8, dtype=torch.uint8) & 1).flatten(1)


def pairs_of_bits(values: Tensor, shifts: list[int]) -> Tensor:
    """The two bits at each of `shifts` of every byte, [blocks, bytes, shifts]."""
    return values[:, :, None] >> torch.tensor(shifts, dtype=torch.uint8) & 3


def q4_0(values: Tensor, scales: Tensor) -> Tensor:
    """(code - 8) * d."""
    (scale,) = half_fields(scales)
    return (nibbles(values).float() - 8) * scale


def q4_1(values: Tensor, scales: Tensor) -> Tensor:
    """code * d + m."""
    slope, minimum = half_fields(scales)
    return nibbles(values).float() * slope + minimum


def _five_bits(records: Tensor) -> tuple[Tensor, Tensor, Tensor]:
    """d, m and the codes of records of d, m, 8 bytes of fifth bits and 32 of low nibbles."""
    head, fifth, low = records.split([4, 8, 32], dim=1)
    slope, minimum = half_fields(head)
    return slope, minimum, (nibbles(low) | (bits(fifth) << 4)).float()


def q5_0(records: Tensor, scales: Tensor) -> Tensor:
    """(code - 16) * d; m is not read."""
    slope, _, codes = _five_bits(records)
    return (codes - 16) * slope


def q5_1(records: Tensor, scales: Tensor) -> Tensor:
    """code * d + m."""
    slope, minimum, codes = _five_bits(records)
    return codes * slope + minimum


def q8_0(values: Tensor, scales: Tensor) -> Tensor:
    """code * d, with a float d."""
    return values.view(torch.int8).float() * scales.view(torch.float32)


def nf4(values: Tensor, scales: Tensor) -> Tensor:
    """NF4[code] * d. The nibbles are the other way round."""
    (scale,) = half_fields(scales)
    return NF4[nibbles(values).roll(32, dims=1).long()] * scale


def nf3(values: Tensor, scales: Tensor) -> Tensor:
    """NF3[code] * d, from 8 bytes of upper bits and 16 of lower pairs, the first pair highest."""
    high, low = values.split([8, 16], dim=1)
    codes = pairs_of_bits(low, [6, 4, 2, 0]).flatten(1) | (bits(high) << 2)
    (scale,) = half_fields(scales)
    return NF3[codes.long()] * scale


def fp4(values: Tensor, scales: Tensor) -> Tensor:
    """FP4[code] * d."""
    (scale,) = half_fields(scales)
    return FP4[nibbles(values).long()] * scale


def fp8_e4m3(values: Tensor, scales: Tensor) -> Tensor:
    """e4m3 * d."""
    return E4M3[values.long()] * scales.view(torch.float32)


def _halves(upper: Tensor, lower: int) -> Tensor:
    """The halves of these upper bytes and that lower one, in float."""
    pairs = torch.stack([torch.full_like(upper, lower), upper], dim=-1).flatten(1)
    return pairs.view(torch.float16).float()


def fp8_e5m2(values: Tensor, scales: Tensor) -> Tensor:
    """e5m2 * d."""
    return _halves(values, 0) * scales.view(torch.float32)


def fp8_e5m2_linear(values: Tensor, scales: Tensor) -> Tensor:
    """The halves with the lower byte 80; the scales are not read."""
    return _halves(values, 0x80)


def q2_k(records: Tensor, scales: Tensor) -> Tensor:
    """(d * scale) * code - dmin * minimum, with a scale and a minimum for every 16 elements."""
    fields, packed, steps = records.split([16, 64, 4], dim=1)
    scale_step, minimum_step = half_fields(steps)
    slope = scale_step * (fields & 15).float()
    minimum = minimum_step * (fields >> 4).float()
    # A byte holds four elements 32 apart, 32 bytes hold 128 elements.
    codes = pairs_of_bits(packed, [0, 2, 4, 6]).view(-1, 2, 32, 4).transpose(2, 3)
    parts = codes.reshape(-1, 16, 16).float()
    return (slope[:, :, None] * parts - minimum[:, :, None]).flatten(1)


def iq2_xxs(records: Tensor, scales: Tensor) -> Tensor:
    """sign * magnitude * (((step + 0.5) * d) * 0.25), with a step for every 32 elements."""
    head, groups = records.split([2, 64], dim=1)
    (scale,) = half_fields(head)
    parts = groups.reshape(-1, 8, 8).long()
    word = (parts[:, :, 4:] << torch.tensor([0, 8, 16, 24])).sum(2)
    factor = ((word >> 28).float() + 0.5) * scale * 0.25
    signs = word[:, :, None] >> torch.tensor([0, 7, 14, 21]) & 127
    negative = signs[..., None] >> torch.arange(7) & 1
    negative = torch.cat([negative, negative.sum(3, keepdim=True) & 1], dim=3)
    magnitude = native.iq2xxs_grid()[parts[:, :, :4]]
    return (factor[:, :, None, None] * torch.where(negative == 1, -magnitude, magnitude)).flatten(1)
