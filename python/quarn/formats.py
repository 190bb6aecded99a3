"""The packed formats: their numbers, their limits, and how their blocks are decoded."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Callable

from torch import Tensor

from . import decoders

HALF_MAX = 65504.0


@dataclass(frozen=True)
class Format:
    """How blocks of weights lie in a packed tensor.

    The value bytes of all blocks come first, block after block, then the scale bytes of all
    blocks. A format that keeps its scales inside the blocks has `scale_bytes` 0.
    `decode` turns ([blocks, value_bytes], [blocks, scale_bytes]) of uint8 into [blocks,
    block_elements] of float. Weights above `limit` in size cannot be packed, for the reason
    `limited_by`. `weighted` tells whether packing can take an importance of columns.
    """

    name: str
    qtype: int
    block_elements: int
    value_bytes: int
    scale_bytes: int
    decode: Callable[[Tensor, Tensor], Tensor]
    limit: float = math.inf
    limited_by: str = ""
    weighted: bool = False

    @property
    def block_bytes(self) -> int:
        return self.value_bytes + self.scale_bytes

    @property
    def bits_per_weight(self) -> float:
        return 8 * self.block_bytes / self.block_elements

    def packed_bytes(self, output_size: int, state_size: int) -> int:
        """Bytes of a packed weight of output_size rows of state_size elements."""
        return output_size * (state_size // self.block_elements) * self.block_bytes


BY_SCALE, BY_MINIMUM = "its scale is a half", "its minimum is a half"

# Operators read the bytes of format 19 in two ways: the fused MLP multiplies e5m2 by the block's
# scale (fp8_e5m2), the linear operators take a value from the byte alone (fp8_e5m2_linear).
FORMATS: dict[str, Format] = {
    entry.name: entry
    for entry in (
        Format("q4_0", 2, 64, 32, 2, decoders.q4_0, 8 * HALF_MAX, BY_SCALE),
        Format("q4_1", 3, 64, 32, 4, decoders.q4_1, HALF_MAX, BY_MINIMUM),
        Format("q5_0", 6, 64, 44, 0, decoders.q5_0, 16 * HALF_MAX, BY_SCALE),
        Format("q5_1", 7, 64, 44, 0, decoders.q5_1, HALF_MAX, BY_MINIMUM),
        Format("q8_0", 8, 64, 64, 4, decoders.q8_0),
        Format("nf4", 10, 64, 32, 2, decoders.nf4, HALF_MAX, BY_SCALE),
        Format("nf3", 11, 64, 24, 2, decoders.nf3, HALF_MAX, BY_SCALE),
        Format("fp8_e4m3", 15, 64, 64, 4, decoders.fp8_e4m3),
        Format("fp4", 16, 64, 32, 2, decoders.fp4, 6 * HALF_MAX, BY_SCALE),
        Format("fp8_e5m2", 19, 64, 64, 4, decoders.fp8_e5m2),
        Format("fp8_e5m2_linear", 19, 64, 64, 4, decoders.fp8_e5m2_linear, 65536, "it has no scale"),
        Format("iq2_xxs", 21, 256, 66, 0, decoders.iq2_xxs, 166 * HALF_MAX, BY_SCALE, True),
        Format("q2_k", 23, 256, 84, 0, decoders.q2_k, 15 * HALF_MAX, BY_MINIMUM, True),
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
