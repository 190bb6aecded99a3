"""The packed formats: their numbers, and the functions that encode and decode their blocks."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Callable

from torch import Tensor

from .byte_wide import decode_fp8_e5m2, encode_fp8_e5m2
from .four_bit import decode_q4_0, encode_q4_0


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

    def packed_bytes(self, output_size: int, state_size: int) -> int:
        """Bytes of a packed weight of output_size rows of state_size elements."""
        return output_size * (state_size // self.block_elements) * self.block_bytes


FORMATS: dict[str, Format] = {
    entry.name: entry
    for entry in (
        Format("q4_0", 2, 64, 32, 2, encode_q4_0, decode_q4_0),
        Format("fp8_e5m2", 19, 64, 64, 4, encode_fp8_e5m2, decode_fp8_e5m2),
    )
}


def format_named(name: str) -> Format:
    """The format of that name; ValueError with the known names otherwise."""
    if name not in FORMATS:
        raise ValueError(f"unknown format {name!r}; known are {', '.join(FORMATS)}")
    return FORMATS[name]
