"""The packed formats: their numbers, and the functions that encode and decode their blocks."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Callable

from torch import Tensor

from .byte_wide import (
    decode_fp8_e4m3,
    decode_fp8_e5m2,
    decode_fp8_e5m2_linear,
    decode_q8_0,
    encode_fp8_e4m3,
    encode_fp8_e5m2,
    encode_fp8_e5m2_linear,
    encode_q8_0,
)
from .codebooks import decode_fp4, decode_nf3, decode_nf4, encode_fp4, encode_nf3, encode_nf4
from .five_bit import decode_q5_0, decode_q5_1, encode_q5_0, encode_q5_1
from .four_bit import decode_q4_0, decode_q4_1, encode_q4_0, encode_q4_1


@dataclass(frozen=True)
class Format:
    """How blocks of weights lie in a packed tensor.

    The value bytes of all blocks come first, block after block, then the scale bytes of all
    blocks. A format that keeps its scales inside the blocks has `scale_bytes` 0.
    `encode` turns [blocks, block_elements] of finite float into ([blocks, value_bytes],
    [blocks, scale_bytes]) of uint8; `decode` is its inverse up to rounding.
    """

    name: str
    qtype: int
    block_elements: int
    value_bytes: int
    scale_bytes: int
    encode: Callable[[Tensor], tuple[Tensor, Tensor]]
    decode: Callable[[Tensor, Tensor], Tensor]

    @property
    def block_bytes(self) -> int:
        return self.value_bytes + self.scale_bytes

    @property
    def bits_per_weight(self) -> float:
        return 8 * self.block_bytes / self.block_elements

    def packed_bytes(self, output_size: int, state_size: int) -> int:
        """Bytes of a packed weight of output_size rows of state_size elements."""
        return output_size * (state_size // self.block_elements) * self.block_bytes


# Operators read the bytes of format 19 in two ways: the fused MLP multiplies e5m2 by the block's
# scale (fp8_e5m2), the linear operators take a value from the byte alone (fp8_e5m2_linear).
FORMATS: dict[str, Format] = {
    entry.name: entry
    for entry in (
        Format("q4_0", 2, 64, 32, 2, encode_q4_0, decode_q4_0),
        Format("q4_1", 3, 64, 32, 4, encode_q4_1, decode_q4_1),
        Format("q5_0", 6, 64, 44, 0, encode_q5_0, decode_q5_0),
        Format("q5_1", 7, 64, 44, 0, encode_q5_1, decode_q5_1),
        Format("q8_0", 8, 64, 64, 4, encode_q8_0, decode_q8_0),
        Format("nf4", 10, 64, 32, 2, encode_nf4, decode_nf4),
        Format("nf3", 11, 64, 24, 2, encode_nf3, decode_nf3),
        Format("fp8_e4m3", 15, 64, 64, 4, encode_fp8_e4m3, decode_fp8_e4m3),
        Format("fp4", 16, 64, 32, 2, encode_fp4, decode_fp4),
        Format("fp8_e5m2", 19, 64, 64, 4, encode_fp8_e5m2, decode_fp8_e5m2),
        Format("fp8_e5m2_linear", 19, 64, 64, 4, encode_fp8_e5m2_linear, decode_fp8_e5m2_linear),
    )
}


# What the fused MLP computes with.
MLP_FORMATS = ("q4_0", "fp8_e5m2")


def format_named(name: str) -> Format:
    """The format of that name; ValueError with the known names otherwise."""
    if name not in FORMATS:
        raise ValueError(f"unknown format {name!r}; known are {', '.join(FORMATS)}")
    return FORMATS[name]


def linear_form(name: str) -> Format:
    """The format that linear operators read under this name: for fp8_e5m2 its linear form."""
    return format_named("fp8_e5m2_linear" if name == "fp8_e5m2" else name)
