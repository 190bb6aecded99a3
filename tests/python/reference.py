"""Plain numpy readings of the packed formats, independent of the package under test."""

from __future__ import annotations

import numpy as np


def e5m2_values() -> np.ndarray:
    """The 256 values of e5m2, by byte: sign, five exponent bits of bias 15, two fraction bits."""
    byte = np.arange(256)
    sign = np.where(byte & 0x80, -1.0, 1.0)
    exponent, fraction = byte >> 2 & 31, byte & 3
    normal = np.ldexp(1 + fraction / 4, exponent - 15)
    subnormal = np.ldexp(fraction / 4, -14)
    finite = sign * np.where(exponent == 0, subnormal, normal)
    return np.where(exponent == 31, np.nan, finite)


def nearest_even_e5m2(x: np.ndarray) -> np.ndarray:
    """Round to nearest even by searching the sorted finite values."""
    values = e5m2_values()[:0x7C]
    upper = np.clip(np.searchsorted(values, np.abs(x)), 1, len(values) - 1)
    below, above = np.abs(x) - values[upper - 1], values[upper] - np.abs(x)
    byte = np.where((below < above) | ((below == above) & (upper % 2 == 1)), upper - 1, upper)
    return np.copysign(values[byte], x)


def decode(packed: bytes, format: str, state_size: int) -> np.ndarray:
    """[output_size, state_size] in double, element by element."""
    value_bytes, block_bytes = {"q4_0": (32, 34), "fp8_e5m2": (64, 68)}[format]
    blocks = len(packed) // block_bytes
    values = np.frombuffer(packed, np.uint8, blocks * value_bytes).reshape(blocks, value_bytes)
    zone = packed[blocks * value_bytes :]
    weight = np.empty((blocks, 64))
    for element in range(64):
        if format == "q4_0":
            byte = values[:, element % 32]
            weight[:, element] = (byte % 16 if element < 32 else byte // 16) - 8.0
        else:
            weight[:, element] = e5m2_values()[values[:, element]]
    scale = np.frombuffer(zone, np.float16 if format == "q4_0" else np.float32)
    return (weight * scale[:, None].astype(np.float64)).reshape(-1, state_size)


def naive_error(weight: np.ndarray, format: str) -> np.ndarray:
    """Squared error per block of the usual rounding: the largest weight gets the extreme code."""
    blocks = weight.reshape(-1, 64).astype(np.float64)
    largest = np.take_along_axis(blocks, np.abs(blocks).argmax(1)[:, None], axis=1)
    if format == "q4_0":
        scale = (largest / -8).astype(np.float16).astype(np.float64)
        steps = np.divide(blocks, scale, out=np.zeros_like(blocks), where=scale != 0)
        decoded = np.clip(np.rint(steps), -8, 7) * scale
    else:
        decoded = nearest_even_e5m2(blocks)
    return ((decoded - blocks) ** 2).sum(1)
