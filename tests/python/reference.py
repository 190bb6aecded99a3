"""Plain numpy readings of the packed formats, independent of the package under test."""

from __future__ import annotations

import numpy as np

import super_blocks

# Value bytes and scale bytes of a block of 64; records have no scale zone.
SIZES = {
    **{"q4_0": (32, 2), "q4_1": (32, 4), "q5_0": (44, 0), "q5_1": (44, 0), "q8_0": (64, 4)},
    **{"nf4": (32, 2), "nf3": (24, 2), "fp4": (32, 2), "fp8_e4m3": (64, 4)},
    **{"fp8_e5m2": (64, 4), "fp8_e5m2_linear": (64, 4)},
}
NF4 = np.array(
    "BF800000 BF3239B1 BF066B30 BECA32A0 BE91A24D BE3D353F BDBA7871 00000000 "
    "3DA2FAFF 3E24CAE3 3E7C04DD 3EAD033A 3EE1A4B8 3F1007AB 3F3913B3 3F800000".split()
)
NF3 = np.array("BF800000 BEF50EE3 BE5E5A6B 00000000 3E24CAE3 3EAD033A 3F1007AB 3F800000".split())


def minifloat_values(exponent_bits: int, fraction_bits: int) -> np.ndarray:
    """The 256 values of an eight-bit float with subnormals, none of them infinite or NaN."""
    byte = np.arange(256)
    scale = 1 << fraction_bits
    bias = (1 << exponent_bits - 1) - 1
    exponent, fraction = (byte & 0x7F) // scale, byte % scale / scale
    normal = np.ldexp(1 + fraction, exponent - bias)
    return np.where(byte & 0x80, -1.0, 1.0) * np.where(
        exponent == 0, np.ldexp(fraction, 1 - bias), normal
    )


def e5m2_values() -> np.ndarray:
    """The 256 values of e5m2, by byte; infinities and NaNs as NaN."""
    return np.where(np.arange(256) % 128 >= 0x7C, np.nan, minifloat_values(5, 2))


def levels(format: str) -> np.ndarray:
    """What each code of a format stands for, before the scale, in double."""
    if format in ("nf4", "nf3"):
        words = [int(word, 16) for word in (NF4 if format == "nf4" else NF3)]
        return np.array(words, np.uint32).view(np.float32).astype(np.float64)
    if format == "fp4":
        size = np.array([0.03125, 0.5, 1, 1.5, 2, 3, 4, 6])
        return np.concatenate([size, -size])
    if format == "fp8_e5m2_linear":
        halves = (np.arange(256, dtype=np.uint16) * 256 + 128).view(np.float16).astype(np.float64)
        return np.where(np.isfinite(halves), halves, np.nan)
    return {
        "q4_0": np.arange(-8.0, 8),
        "q4_1": np.arange(16.0),
        "q5_0": np.arange(-16.0, 16),
        "q5_1": np.arange(32.0),
        "q8_0": np.concatenate([np.arange(128.0), np.arange(-128.0, 0)]),
        "fp8_e4m3": minifloat_values(4, 3),
        "fp8_e5m2": e5m2_values(),
    }[format]


def nearest(x: np.ndarray, format: str) -> np.ndarray:
    """The nearest finite level; of two at the same distance, the one of even code."""
    table = levels(format)
    codes = np.flatnonzero(np.isfinite(table))
    codes = np.concatenate([codes[codes % 2 == 0], codes[codes % 2 == 1]])
    return table[codes[np.abs(x[..., None] - table[codes]).argmin(-1)]]


def codes_of(blocks: np.ndarray, element: int, format: str) -> np.ndarray:
    """The code of one element of every block. blocks: [blocks, value bytes] of uint8."""
    late = element >= 32
    high = late != (format == "nf4")
    if format in ("q5_0", "q5_1"):
        fifth = blocks[:, 4 + element // 8] >> (element % 8) & 1
        return (blocks[:, 12 + element % 32] >> (4 * high) & 15) + 16 * fifth
    if format == "nf3":
        third = blocks[:, element // 8] >> (element % 8) & 1
        return (blocks[:, 8 + element // 4] >> (6 - element % 4 * 2) & 3) + 4 * third
    if SIZES[format][0] == 32:
        return blocks[:, element % 32] >> (4 * high) & 15
    return blocks[:, element]


def decode(packed: bytes, format: str, state_size: int) -> np.ndarray:
    """[output_size, state_size] in double, element by element."""
    if format in super_blocks.BYTES:
        return super_blocks.decode(packed, format, state_size).astype(np.float64)
    codes, scales = codes_and_scales(packed, format)
    weight = levels(format)[codes] * scales[:, :1]
    if format in ("q4_1", "q5_1"):
        weight += scales[:, 1:]
    return weight.reshape(-1, state_size)


def codes_and_scales(packed: bytes, format: str) -> tuple[np.ndarray, np.ndarray]:
    """The codes [blocks, 64], and each block's scales in double, 1 where they are not read."""
    value_bytes, scale_bytes = SIZES[format]
    count = len(packed) // (value_bytes + scale_bytes)
    blocks = np.frombuffer(packed[: count * value_bytes], np.uint8).reshape(count, -1)
    zone = packed[count * value_bytes :] if scale_bytes else blocks[:, :4].tobytes()
    scales = np.frombuffer(zone, np.float32 if value_bytes == 64 else np.float16)
    scales = scales.reshape(count, -1).astype(np.float64)
    if format == "fp8_e5m2_linear":
        scales = np.ones_like(scales)
    return np.stack([codes_of(blocks, e, format) for e in range(64)], axis=1), scales


def naive_error(weight: np.ndarray, format: str) -> np.ndarray:
    """Squared error per block of the usual rounding: the largest weight gets the extreme code."""
    blocks = weight.reshape(-1, 64)
    table = levels(format)
    minimum = np.float16(0)
    if format in ("q4_1", "q5_1"):
        low, high = blocks.min(1, keepdims=True), blocks.max(1, keepdims=True)
        minimum = low.astype(np.float16)
        scale = (high - low) / np.float32(table.max())
    elif format.startswith("fp8_e5m2"):
        scale = np.ones((len(blocks), 1), np.float32)
    else:
        largest = np.take_along_axis(blocks, np.abs(blocks).argmax(1)[:, None], axis=1)
        extreme = table[np.abs(table).argmax()]
        scale = largest / np.float32(extreme)
    if format not in ("q8_0", "fp8_e4m3", "fp8_e5m2", "fp8_e5m2_linear"):
        scale = scale.astype(np.float16)
    scale, minimum = scale.astype(np.float64), minimum.astype(np.float64)
    wide = blocks.astype(np.float64)
    steps = np.divide(wide - minimum, scale, out=np.zeros_like(wide), where=scale != 0)
    decoded = nearest(steps, format) * scale + minimum
    return ((decoded - wide) ** 2).sum(1)
