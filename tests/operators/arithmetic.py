"""Arithmetic in an element type, in plain numpy: every operation rounds to the type at once.

Values of bfloat16 are held as float32, those of the other types in the numpy type of the same name.
"""

from __future__ import annotations

from dataclasses import dataclass
from typing import Callable

import numpy as np


def _round_bfloat16(x: np.ndarray) -> np.ndarray:
    bits = np.ascontiguousarray(x, np.float32).view(np.uint32)
    with np.errstate(over="ignore"):
        rounded = bits + np.uint32(0x7FFF) + (bits >> np.uint32(16) & np.uint32(1))
    rounded &= np.uint32(0xFFFF0000)
    return rounded.view(np.float32).reshape(np.shape(x))


@dataclass(frozen=True)
class Arithmetic:
    """T(x) is `to`; `wide` is the type in which an operation is done; `unit` is the unit roundoff."""

    name: str
    wide: type
    to: Callable[[np.ndarray], np.ndarray]
    unit: float

    def mul(self, a: np.ndarray, b: np.ndarray) -> np.ndarray:
        return self.to(self.wide(a) * self.wide(b))

    def add(self, a: np.ndarray, b: np.ndarray) -> np.ndarray:
        return self.to(self.wide(a) + self.wide(b))

    def total(self, parts: np.ndarray) -> np.ndarray:
        """The sum over the first axis, in order from 0."""
        total = self.to(np.zeros(parts.shape[1:]))
        for part in self.to(parts):
            total = self.add(total, part)
        return total

    def tree(self, entries: np.ndarray) -> np.ndarray:
        """The sum over the last axis: entry l + stride is added to entry l, for stride halving down to 1."""
        while (stride := entries.shape[-1] // 2) > 0:
            entries = self.add(entries[..., :stride], entries[..., stride:])
        return entries[..., 0]

    def mad(self, a: np.ndarray, b: np.ndarray, c: np.ndarray) -> np.ndarray:
        """a * b + c with one rounding of the wide type, then to T (exact enough in double for narrower types)."""
        return self.to(self.wide(np.float64(a) * np.float64(b) + np.float64(c)))


HALF = Arithmetic("float16", np.float32, np.float16, 2.0**-11)
FLOAT = Arithmetic("float32", np.float32, np.float32, 2.0**-24)
DOUBLE = Arithmetic("float64", np.float64, np.float64, 2.0**-53)
BFLOAT16 = Arithmetic("bfloat16", np.float32, _round_bfloat16, 2.0**-8)
ALL = {a.name: a for a in (HALF, FLOAT, DOUBLE, BFLOAT16)}
