"""Formats with one byte per element and a float scale: q8_0, fp8_e4m3 and fp8_e5m2."""

from __future__ import annotations

import torch
from torch import Tensor

from .search import as_float, best_scale, check_range, quotient

Q8_0_PEAKS = (
    *(127.0, -128.0, 127.5, 126.5, 126.0, 125.0, 124.0, 122.0, 120.0),
    *(-128.5, -127.5, -127.0, -126.0, -125.0, -123.0, -121.0),
)

# For the two kinds of floating-point byte, equal steps over one octave suffice, because doubling a
# scale changes no rounding but that of subnormals. Codes of the size of q4_0's, or smaller, leave
# the products and sums of a kernel that works in half far from its limits. The octave of e5m2
# reaches down to 2^-16; that of e4m3, which has fewer exponents, is higher and reaches as far
# below its largest weight as matters: 2^-13 of it.
E5M2_PEAKS = tuple(1 + step / 32 for step in range(32))
E4M3_PEAKS = tuple(8 + step / 4 for step in range(32))

# The linear form of e5m2 reads a byte as the middle of the halves that start with it.
LINEAR_BITS = (torch.arange(0x7C, dtype=torch.int16) << 8) + 0x80
LINEAR_MAGNITUDES = LINEAR_BITS.view(torch.float16).float()
LINEAR_MIDDLES = (LINEAR_MAGNITUDES[1:] + LINEAR_MAGNITUDES[:-1]) / 2
LINEAR_LIMIT = 65536


def round_to_bits(x: Tensor, fraction_bits: int, smallest_exponent: int) -> Tensor:
    """Round to nearest even onto a binary floating-point type, subnormals included.

    x: float, in the range of the type, whose smallest normal value is 2^smallest_exponent.
    """
    dropped = 23 - fraction_bits
    bits = x.view(torch.int32)
    odd = (bits >> dropped) & 1
    rounded = (bits + ((1 << dropped - 1) - 1 + odd)) & -(1 << dropped)
    step = 2.0 ** (smallest_exponent - fraction_bits)
    subnormal = (x / step).round_() * step
    return torch.where(x.abs() < 2.0**smallest_exponent, subnormal, rounded.view(torch.float32))


def encode_q8_0(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Signed bytes of value = code * d with the float scale d of least squared error.

    blocks: [blocks, 64] of finite float. A block of zeros gets scale 0 and bytes 0.
    """
    scale = best_scale(blocks, Q8_0_PEAKS, _q8_0_levels, as_float)
    codes = _q8_0_levels(quotient(blocks, scale)).to(torch.int8)
    return codes.view(torch.uint8), scale.view(torch.uint8)


def decode_q8_0(values: Tensor, scales: Tensor) -> Tensor:
    """code * d. values: [blocks, 64], scales: [blocks, 4]; returns [blocks, 64] of float."""
    return values.view(torch.int8).float() * scales.view(torch.float32)


def encode_fp8_e4m3(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Bytes of value = e4m3 * d with the float scale d of least squared error.

    blocks: [blocks, 64] of finite float. Sign, four exponent bits of bias 7, three fraction bits.
    The largest weight of a block becomes 8 to 16. A block of zeros gets scale 0 and bytes 0.
    """
    scale = best_scale(blocks, E4M3_PEAKS, _e4m3_levels, as_float).abs()
    levels = _e4m3_levels(quotient(blocks, scale))
    size = levels.abs()
    normal = (size.view(torch.int32) >> 20) - (120 << 3)
    magnitude = torch.where(size < 2.0**-6, (size * 2.0**9).int(), normal)
    codes = magnitude | (levels.signbit().int() << 7)
    return codes.to(torch.uint8), scale.view(torch.uint8)


def decode_fp8_e4m3(values: Tensor, scales: Tensor) -> Tensor:
    """e4m3 * d. values: [blocks, 64], scales: [blocks, 4]; returns [blocks, 64] of float."""
    return E4M3_BY_CODE[values.long()] * scales.view(torch.float32)


def encode_fp8_e5m2(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Bytes of value = e5m2 * d with the float scale d of least squared error.

    blocks: [blocks, 64] of finite float. A byte is the upper half of the value's bits as a half.
    The largest weight of a block becomes 1 to 2; one of the scales tried is a power of two, so
    scaling is never worse than not to scale. A block of zeros gets scale 0 and bytes 0.
    """
    largest = blocks.abs().amax(1, keepdim=True)
    power_of_two_peak = 2 * torch.frexp(largest).mantissa
    power_of_two_peak[largest == 0] = 1
    peaks = (power_of_two_peak, *E5M2_PEAKS)
    scale = best_scale(blocks, peaks, _e5m2_levels, as_float).abs()
    codes = _e5m2_levels(quotient(blocks, scale))
    return codes.half().view(torch.uint8)[:, 1::2], scale.view(torch.uint8)


def decode_fp8_e5m2(values: Tensor, scales: Tensor) -> Tensor:
    """e5m2 * d. values: [blocks, 64], scales: [blocks, 4]; returns [blocks, 64] of float."""
    return _halves(values, 0) * scales.view(torch.float32)


def encode_fp8_e5m2_linear(blocks: Tensor) -> tuple[Tensor, Tensor]:
    """Bytes of the reading without a scale: the half whose upper byte it is and whose lower is 80.

    blocks: [blocks, 64] of finite float. Each weight gets the byte of nearest value, of its own
    sign; there is no 0, and weights below 2^-17 in size become 2^-17. The scales, which nothing
    reads, are 1. Weights above 65536 raise ValueError: that is half a step above the largest
    value, 61440.
    """
    check_range(blocks, "fp8_e5m2_linear", LINEAR_LIMIT, "it has no scale")
    codes = torch.bucketize(blocks.abs(), LINEAR_MIDDLES) | (blocks.signbit().long() << 7)
    scales = torch.ones(len(blocks), 1)
    return codes.to(torch.uint8), scales.view(torch.uint8)


def decode_fp8_e5m2_linear(values: Tensor, scales: Tensor) -> Tensor:
    """The halves with the lower byte 80. values: [blocks, 64]; returns [blocks, 64] of float."""
    return _halves(values, 0x80)


def _halves(upper: Tensor, lower: int) -> Tensor:
    """The halves of these upper bytes and that lower one, in float."""
    pairs = torch.stack([torch.full_like(upper, lower), upper], dim=-1).flatten(1)
    return pairs.view(torch.float16).float()


def _q8_0_levels(x: Tensor) -> Tensor:
    return x.round().clamp_(-128, 127)


def _e4m3_levels(x: Tensor) -> Tensor:
    return round_to_bits(x, 3, -6)


def _e5m2_levels(x: Tensor) -> Tensor:
    return round_to_bits(x, 2, -14)


def _e4m3_table() -> Tensor:
    code = torch.arange(256)
    exponent, fraction = code >> 3 & 15, code & 7
    normal = torch.ldexp(1 + fraction / 8, exponent - 7)
    size = torch.where(exponent == 0, fraction * 2.0**-9, normal)
    return torch.where(code < 128, size, -size)


E4M3_BY_CODE = _e4m3_table()
