"""Random packed weights of every format and their plain decoding, block by block, in numpy."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Callable, Optional

import numpy as np

NF4 = np.array(
    [0xBF800000, 0xBF3239B1, 0xBF066B30, 0xBECA32A0, 0xBE91A24D, 0xBE3D353F, 0xBDBA7871, 0x00000000,
     0x3DA2FAFF, 0x3E24CAE3, 0x3E7C04DD, 0x3EAD033A, 0x3EE1A4B8, 0x3F1007AB, 0x3F3913B3, 0x3F800000],
    np.uint32,
).view(np.float32)  # fmt: skip
NF3 = np.array(
    [0xBF800000, 0xBEF50EE3, 0xBE5E5A6B, 0x00000000, 0x3E24CAE3, 0x3EAD033A, 0x3F1007AB, 0x3F800000], np.uint32
).view(np.float32)
FP4 = np.array([0.03125, 0.5, 1, 1.5, 2, 3, 4, 6])


@dataclass(frozen=True)
class Format:
    """How a format's bytes lie and what they stand for.

    decode: value bytes [blocks, value_bytes] to values before the scale [blocks, 64], in float64.
    scales: numbers of the type `scale` that a block has; records hold them before the values, zones after all values.
    order: columns of a block, tile by tile in the order of summation; None for the five-bit kernels, which have none.
    """

    qtype: int
    value_bytes: int
    decode: Callable[[np.ndarray], np.ndarray]
    order: Optional[np.ndarray]
    scale: type = np.float16
    scales: int = 1
    record: bool = False
    reads_scale: bool = True


def _nibbles(qs: np.ndarray, high_first: bool = False) -> np.ndarray:
    halves = [qs & 15, qs >> 4]
    return np.concatenate(halves[::-1] if high_first else halves, axis=1)


def _bits(words: np.ndarray) -> np.ndarray:
    """The 64 bits of a little-endian word of 8 bytes per block."""
    return np.unpackbits(words, axis=1, bitorder="little")


def _fp4(code: np.ndarray) -> np.ndarray:
    return np.where(code & 8, -1, 1) * FP4[code & 7]


def _five_bits(record: np.ndarray) -> np.ndarray:
    return _nibbles(record[:, 8:]) + 16.0 * _bits(record[:, :8])


def _three_bits(block: np.ndarray) -> np.ndarray:
    low = np.stack([block[:, 8:] >> shift & 3 for shift in (6, 4, 2, 0)], axis=2).reshape(len(block), 64)
    return NF3[_bits(block[:, :8]) * 4 + low].astype(np.float64)


def _e4m3(u: np.ndarray) -> np.ndarray:
    exponent, fraction = (u >> 3 & 15).astype(int), (u & 7).astype(int)
    magnitude = np.where(exponent == 0, np.ldexp(fraction, -9), np.ldexp(8 + fraction, exponent - 10))
    return np.where(u & 0x80, -magnitude, magnitude)


def _upper_half_byte(qs: np.ndarray, lower: int) -> np.ndarray:
    return (qs.astype(np.uint16) << 8 | lower).view(np.float16).astype(np.float64)


# Byte c of a tile of eight bytes holds a low and a high element, 32 columns apart, summed in turn.
_PAIRS = np.array([[8 * t + c + 32 * high for c in range(8) for high in (0, 1)] for t in range(4)])
_BYTES = np.arange(64).reshape(8, 8)
_SIXTEENS = np.arange(64).reshape(4, 16)

FORMATS = {
    "q4_0": Format(2, 32, lambda q: _nibbles(q) - 8.0, _PAIRS),
    "q4_1": Format(3, 32, lambda q: _nibbles(q) * 1.0, _PAIRS, scales=2),
    "q5_0": Format(6, 40, lambda q: _five_bits(q) - 16, None, scales=2, record=True),
    "q5_1": Format(7, 40, _five_bits, None, scales=2, record=True),
    "q8_0": Format(8, 64, lambda q: q.view(np.int8).astype(np.float64), _BYTES, np.float32),
    "nf4": Format(10, 32, lambda q: NF4[_nibbles(q, True)].astype(np.float64), _PAIRS),
    "nf3": Format(11, 24, _three_bits, _SIXTEENS),
    "fp8_e4m3": Format(15, 64, _e4m3, _BYTES, np.float32),
    "fp4": Format(16, 32, lambda q: _fp4(_nibbles(q)), _PAIRS),
    "fp8_e5m2": Format(19, 64, lambda q: _upper_half_byte(q, 0x80), _BYTES, np.float32, reads_scale=False),
}
# As the fused operators read it: with the scale, and without the lower byte.
FUSED = {
    "q4_0": FORMATS["q4_0"],
    "fp8_e5m2": Format(19, 64, lambda q: _upper_half_byte(q, 0), _BYTES, np.float32),
}


@dataclass
class Weight:
    """A packed weight: its bytes, and the values and scales that they stand for."""

    format: Format
    state: int
    values: np.ndarray  # [rows, blocks of a row, value bytes]
    scales: np.ndarray  # [rows, blocks of a row, scales of a block]

    @property
    def bytes(self) -> np.ndarray:
        scales = np.ascontiguousarray(self.scales).view(np.uint8).reshape(*self.scales.shape[:2], -1)
        if self.format.record:
            return np.concatenate([scales, self.values], axis=2).reshape(-1)
        return np.concatenate([self.values.reshape(-1), scales.reshape(-1)])

    def rows(self, which: np.ndarray) -> "Weight":
        return Weight(self.format, self.state, self.values[which], self.scales[which])

    def decoded(self) -> np.ndarray:
        """Values before the scale, [rows, state], float64."""
        flat = self.format.decode(self.values.reshape(-1, self.format.value_bytes))
        return flat.reshape(len(self.values), self.state)

    def per_element(self, scale: int) -> np.ndarray:
        """A scale of each element's block, [rows, state], float64."""
        return np.repeat(self.scales[:, :, scale].astype(np.float64), 64, axis=1)


def random_weight(form: Format, rows: int, state: int, seed: int, kind: str = "plain") -> Weight:
    """Random codes and scales. Kinds: "plain"; "zero scales" has every third scale 0; "ends" has the outermost codes
    (infinities and NaNs in fp8_e5m2) and no others in some blocks; "huge scales" overflows half in every other row."""
    random = np.random.default_rng(seed)
    blocks = state // 64
    values = random.integers(0, 256, (rows, blocks, form.value_bytes), dtype=np.uint8)
    scales = (random.standard_normal((rows, blocks, form.scales)) * 0.05).astype(form.scale)
    is_e5m2 = form.qtype == 19
    if is_e5m2 and kind != "ends":
        values = values & 0xBF  # exponent below 16: magnitudes below 2
    if kind == "huge scales":
        scales[::2] = 1e6 if form.scale is np.float32 else 60000
    if kind == "ends":
        ends = [0x00, 0x7B, 0xFB, 0x80] if is_e5m2 else [0x0F, 0xF0, 0x00, 0xFF]
        values[:, ::2] = random.choice(np.array(ends, np.uint8), values[:, ::2].shape)
    if kind == "zero scales":
        scales[:, ::3] = 0
    return Weight(form, state, values, scales)
