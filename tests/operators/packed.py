"""Random packed weights and their plain decoding, block by block."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Callable

import numpy as np


@dataclass(frozen=True)
class Format:
    """A zoned format as the matrix-vector kernels read it.

    decode: value bytes [blocks, value_bytes] to values before the scale [blocks, 64], in float64.
    order: columns of a block, tile by tile in the order of summation [tiles, elements of a tile].
    """

    qtype: int
    value_bytes: int
    scale: type
    decode: Callable[[np.ndarray], np.ndarray]
    order: np.ndarray


def _q4_0(qs: np.ndarray) -> np.ndarray:
    return np.concatenate([qs & 15, qs >> 4], axis=1).astype(np.float64) - 8


def _upper_half_byte(qs: np.ndarray) -> np.ndarray:
    return (qs.astype(np.uint16) << 8).view(np.float16).astype(np.float64)


# Byte c of a tile of eight bytes holds a low and a high element, 32 columns apart, summed in turn.
_NIBBLE_ORDER = np.array([[8 * t + c + 32 * high for c in range(8) for high in (0, 1)] for t in range(4)])
_BYTE_ORDER = np.arange(64).reshape(8, 8)

FORMATS = {
    "q4_0": Format(2, 32, np.float16, _q4_0, _NIBBLE_ORDER),
    "fp8_e5m2": Format(19, 64, np.float32, _upper_half_byte, _BYTE_ORDER),
}


@dataclass
class Weight:
    """A packed weight: its bytes, and the values and scales that they stand for."""

    format: Format
    state: int
    values: np.ndarray  # [rows, blocks of a row, value bytes]
    scales: np.ndarray  # [rows, blocks of a row]

    @property
    def bytes(self) -> np.ndarray:
        return np.concatenate([self.values.reshape(-1), self.scales.reshape(-1).view(np.uint8)])

    def rows(self, which: np.ndarray) -> "Weight":
        return Weight(self.format, self.state, self.values[which], self.scales[which])

    def decoded(self) -> np.ndarray:
        """Values before the scale, [rows, state], float64."""
        flat = self.format.decode(self.values.reshape(-1, self.format.value_bytes))
        return flat.reshape(len(self.values), self.state)


def random_weight(name: str, rows: int, state: int, seed: int, kind: str = "plain") -> Weight:
    """Random codes and scales. Kinds: "plain"; "zero scales" has every third scale 0; "ends" has the outermost codes
    (infinities and NaNs in fp8_e5m2) and no others in some blocks; "huge scales" overflows half in every other row."""
    form = FORMATS[name]
    random = np.random.default_rng(seed)
    blocks = state // 64
    values = random.integers(0, 256, (rows, blocks, form.value_bytes), dtype=np.uint8)
    scales = (random.standard_normal((rows, blocks)) * 0.05).astype(form.scale)
    if name == "fp8_e5m2":
        values = values & 0xBF if kind != "ends" else values  # exponent below 16: magnitudes below 2
        if kind == "huge scales":
            scales[::2] = 1e6
    elif kind == "huge scales":
        scales[::2] = 60000
    if kind == "ends":
        ends = [0x00, 0x7B, 0xFB, 0x80] if name == "fp8_e5m2" else [0x0F, 0xF0, 0x00, 0xFF]
        values[:, ::2] = random.choice(np.array(ends, np.uint8), values[:, ::2].shape)
    if kind == "zero scales":
        scales[:, ::3] = 0
    return Weight(form, state, values, scales)
