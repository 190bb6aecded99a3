"""The rotary calls that are compared everywhere, and the definition in double with the error of the steps in float."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import torch
import tolvane

import arithmetic
from cases import TYPES, Case, Results, numbers, on_xpu

FLOAT_UNIT = 2.0**-24
SIZES = (2, 6, 8, 40, 64, 66, 128, 256)


def check_turned(
    result: np.ndarray,
    x: np.ndarray,
    sine: np.ndarray,
    cosine: np.ndarray,
    type: str,
    turn_error: np.ndarray | float = 0,
    error: np.ndarray | float = 0,
) -> None:
    """x [..., size], off by error at most, turned by the angles' sines and cosines [..., size / 2], off by
    turn_error."""
    t = arithmetic.ALL[type]
    low, high = np.split(x, 2, axis=-1)
    value = np.concatenate([cosine * low - sine * high, cosine * high + sine * low], axis=-1)
    half = (np.abs(low) + np.abs(high)) * (turn_error + 4 * FLOAT_UNIT)
    half += sum(np.split(np.broadcast_to(error, x.shape), 2, axis=-1))
    bound = np.concatenate([half, half], axis=-1) + max(t.unit, FLOAT_UNIT) * np.abs(value)
    bound += 2.0**-24 if t.name == "float16" else 1e-40
    assert np.all(np.abs(result - value) <= bound), np.max(np.abs(result - value) / bound)


def turns_at(positions: np.ndarray, size: int) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Sines and cosines [B, 1, S, size / 2] of the angles at positions [B, S], and how far those in float may be off.
    The rate 10000^(-2 / size) is a float, whose error the column multiplies; power, position and product round once
    each."""
    column = np.arange(size // 2)
    angle = positions[:, None, :, None] * 10000.0 ** (-2 * column / size)
    exponent = 26.6 / size * FLOAT_UNIT  # of the base's logarithm: the quotient rounds
    error = angle * (column * (2 * exponent + 4 * FLOAT_UNIT) + 6 * FLOAT_UNIT)
    return np.sin(angle), np.cos(angle), error + 4 * FLOAT_UNIT


def check_positions(
    result: torch.Tensor | np.ndarray, x: torch.Tensor, positions: torch.Tensor, type: str, backward: bool = False
) -> None:
    """x [B, H, S, size] by its tokens' positions [B, S]."""
    result = result if isinstance(result, np.ndarray) else numbers(result)
    sine, cosine, error = turns_at(numbers(positions), x.shape[-1])
    check_turned(result, numbers(x), -sine if backward else sine, cosine, type, error)


@dataclass(frozen=True)
class Rotary(Case):
    type: str
    size: int
    batch: int = 2
    q_heads: int = 4
    tokens: int = 3

    def tensors(self) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor]:
        """q, k and position_ids."""
        random = np.random.default_rng(self.size)
        shapes = [(self.batch, heads, self.tokens, self.size) for heads in (self.q_heads, 1)]
        q, k = (on_xpu(random.standard_normal(s), self.type) for s in shapes)
        return q, k, on_xpu(random.integers(0, 131072, (self.batch, self.tokens)))

    def tables(self) -> list[torch.Tensor]:
        """Sines and cosines [1, 1, tokens, size] of random angles; of the second halves, which nothing reads, too."""
        angle = np.random.default_rng(5).uniform(-3, 3, (1, 1, self.tokens, self.size))
        return [on_xpu(f(angle), self.type) for f in (np.sin, np.cos)]

    def run(self) -> dict[str, torch.Tensor]:
        q, k, positions = self.tensors()
        by_position, by_tables = ([torch.full_like(x, 7) for x in (q, k)] for _ in range(2))
        rotate = tolvane.apply_rotary_embedding_half_q_and_k
        assert rotate(q, k, positions, *by_position) is None
        tolvane.apply_rotary_embedding_half_q_and_k_cache_freq(q, k, *self.tables(), *by_tables)
        return dict(zip(("q", "k", "table q", "table k"), by_position + by_tables))

    def check(self, results: Results, group: int = 32) -> None:
        q, k, positions = self.tensors()
        tables = [numbers(table)[..., : self.size // 2] for table in self.tables()]
        for which, x in (("q", q), ("k", k)):
            check_positions(results[which], x, positions, self.type)
            check_turned(results[f"table {which}"], numbers(x), *tables, self.type)


CASES = [Rotary(dtype, size) for dtype in TYPES for size in SIZES]
