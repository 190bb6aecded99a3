"""The packed formats in plain numpy: random weights, their bytes, and what those stand for, block by block."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Callable, Optional

import numpy as np


def _words(text: str) -> np.ndarray:
    """Floats by their bits, in double."""
    bits = np.array([int(word, 16) for word in text.split()], np.uint32)
    return bits.view(np.float32).astype(np.float64)


def minifloat_values(exponent_bits: int, fraction_bits: int) -> np.ndarray:
    """The 256 values of an eight-bit float with subnormals, none of them infinite or NaN."""
    byte, scale = np.arange(256), 1 << fraction_bits
    bias = (1 << exponent_bits - 1) - 1
    exponent, fraction = (byte & 0x7F) // scale, byte % scale / scale
    normal = np.ldexp(1 + fraction, exponent - bias)
    magnitude = np.where(exponent == 0, np.ldexp(fraction, 1 - bias), normal)
    return np.where(byte & 0x80, -magnitude, magnitude)


def _upper_half_bytes(lower: int) -> np.ndarray:
    return (np.arange(256, dtype=np.uint16) << 8 | lower).view(np.float16).astype(np.float64)


def _nibbles(qs: np.ndarray) -> np.ndarray:
    return np.concatenate([qs & 15, qs >> 4], axis=1)


def _nibbles_high_first(qs: np.ndarray) -> np.ndarray:
    return np.concatenate([qs >> 4, qs & 15], axis=1)


def _bits(words: np.ndarray) -> np.ndarray:
    """The 64 bits of a little-endian word of 8 bytes per block."""
    return np.unpackbits(words, axis=1, bitorder="little")


def _five_bits(record: np.ndarray) -> np.ndarray:
    return _nibbles(record[:, 8:]) + 16 * _bits(record[:, :8])


def _three_bits(block: np.ndarray) -> np.ndarray:
    low = np.stack([block[:, 8:] >> shift & 3 for shift in (6, 4, 2, 0)], axis=2)
    return _bits(block[:, :8]) * 4 + low.reshape(len(block), 64)


def _bytes(qs: np.ndarray) -> np.ndarray:
    return qs


@dataclass(frozen=True)
class Format:
    """How a format's bytes lie and what they stand for.

    levels: what each code stands for before the scale. codes: value bytes [blocks, value_bytes] to codes [blocks, 64].
    scales: numbers of the type `scale` of a block; records hold them before the values, zones after all values.
    order: columns of a block, tile by tile in the order of summation; None for the five-bit kernels, which have none.
    minimum: the second scale is added to every element.
    """

    qtype: int
    value_bytes: int
    levels: np.ndarray
    codes: Callable[[np.ndarray], np.ndarray]
    order: Optional[np.ndarray]
    scale: type = np.float16
    scales: int = 1
    record: bool = False
    minimum: bool = False
    reads_scale: bool = True

    @property
    def scale_bytes(self) -> int:
        return self.scales * np.dtype(self.scale).itemsize

    @property
    def block_bytes(self) -> int:
        return self.value_bytes + self.scale_bytes


# Byte c of a tile of eight bytes holds a low and a high element, 32 columns apart, summed in turn.
_PAIRS = np.array([[8 * t + c + 32 * high for c in range(8) for high in (0, 1)] for t in range(4)])
_EIGHTS = np.arange(64).reshape(8, 8)
_NF4 = (
    "BF800000 BF3239B1 BF066B30 BECA32A0 BE91A24D BE3D353F BDBA7871 00000000 "
    "3DA2FAFF 3E24CAE3 3E7C04DD 3EAD033A 3EE1A4B8 3F1007AB 3F3913B3 3F800000"
)
_NF3 = "BF800000 BEF50EE3 BE5E5A6B 00000000 3E24CAE3 3EAD033A 3F1007AB 3F800000"
_FP4 = np.array([0.03125, 0.5, 1, 1.5, 2, 3, 4, 6])
_SIGNED = np.concatenate([np.arange(128.0), np.arange(-128.0, 0)])

FORMATS = {
    "q4_0": Format(2, 32, np.arange(-8.0, 8), _nibbles, _PAIRS),
    "q4_1": Format(3, 32, np.arange(16.0), _nibbles, _PAIRS, scales=2, minimum=True),
    "q5_0": Format(6, 40, np.arange(-16.0, 16), _five_bits, None, scales=2, record=True),
    "q5_1": Format(7, 40, np.arange(32.0), _five_bits, None, scales=2, record=True, minimum=True),
    "q8_0": Format(8, 64, _SIGNED, _bytes, _EIGHTS, np.float32),
    "nf4": Format(10, 32, _words(_NF4), _nibbles_high_first, _PAIRS),
    "nf3": Format(11, 24, _words(_NF3), _three_bits, np.arange(64).reshape(4, 16)),
    "fp8_e4m3": Format(15, 64, minifloat_values(4, 3), _bytes, _EIGHTS, np.float32),
    "fp4": Format(16, 32, np.concatenate([_FP4, -_FP4]), _nibbles, _PAIRS),
    "fp8_e5m2": Format(19, 64, _upper_half_bytes(0x80), _bytes, _EIGHTS, np.float32, reads_scale=False),
}
# As the fused operators read it: with the scale, and without the lower byte.
FUSED = {"q4_0": FORMATS["q4_0"], "fp8_e5m2": Format(19, 64, _upper_half_bytes(0), _bytes, _EIGHTS, np.float32)}
# By the names that packing knows.
PACKED = {**FORMATS, "fp8_e5m2": FUSED["fp8_e5m2"], "fp8_e5m2_linear": FORMATS["fp8_e5m2"]}
BLOCK_BYTES = {form.qtype: form.block_bytes for form in FORMATS.values()}


@dataclass
class Weight:
    """A packed weight: its bytes, and the values and scales that they stand for."""

    format: Format
    state: int
    values: np.ndarray  # [rows, blocks of a row, value bytes]
    scales: np.ndarray  # [rows, blocks of a row, scales of a block]

    @property
    def bytes(self) -> np.ndarray:
        scales = np.ascontiguousarray(self.scales).view(np.uint8)
        scales = scales.reshape(*self.scales.shape[:2], -1)
        if self.format.record:
            return np.concatenate([scales, self.values], axis=2).reshape(-1)
        return np.concatenate([self.values.reshape(-1), scales.reshape(-1)])

    def rows(self, which: np.ndarray) -> "Weight":
        return Weight(self.format, self.state, self.values[which], self.scales[which])

    def decoded(self) -> np.ndarray:
        """Values before the scale, [rows, state], float64."""
        codes = self.format.codes(self.values.reshape(-1, self.format.value_bytes))
        return self.format.levels[codes].reshape(len(self.values), self.state)

    def per_element(self, scale: int) -> np.ndarray:
        """A scale of each element's block, [rows, state], float64."""
        return np.repeat(self.scales[:, :, scale].astype(np.float64), 64, axis=1)

    def elements(self) -> tuple[np.ndarray, np.ndarray]:
        """The weight without any rounding, and the sum of the magnitudes that make each element."""
        product = self.decoded() * (self.per_element(0) if self.format.reads_scale else 1)
        minimum = self.per_element(1) if self.format.minimum else 0
        return product + minimum, np.abs(product) + np.abs(minimum)


def from_bytes(raw: bytes, form: Format, state: int) -> Weight:
    """The weight of these packed bytes."""
    blocks = len(raw) // form.block_bytes
    data = np.frombuffer(raw, np.uint8)
    if form.record:
        scales, values = np.split(data.reshape(blocks, -1), [form.scale_bytes], axis=1)
    else:
        values, scales = np.split(data, [blocks * form.value_bytes])
    scales = np.ascontiguousarray(scales).view(form.scale)
    values, scales = (x.reshape(-1, state // 64, x.size // blocks) for x in (values, scales))
    return Weight(form, state, values, scales)


def random_weight(form: Format, rows: int, state: int, seed: int, kind: str = "plain") -> Weight:
    """Random codes and scales. Kinds: "plain"; "zero scales" has every third scale 0; "ends" has the outermost codes
    (infinities and NaNs in fp8_e5m2) and no others in some blocks; "huge scales" overflows half in every other row.
    """
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
