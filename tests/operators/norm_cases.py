"""The calls of the norms that are compared everywhere, and their definitions in double with the steps' error."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Optional

import numpy as np
import torch
import tolvane

import arithmetic
from cases import TYPES, Case, Results, numbers, on_xpu

OPERATORS = ("fused_rms_norm", "fused_layer_norm")
FLOAT_UNIT = 2.0**-24
CHAIN = 64  # roundings between an element and a sum of squares, at most: 32 per work-item, then two trees
Array = Optional[np.ndarray]


def eps_in_kernel(eps: float, t: arithmetic.Arithmetic) -> float:
    """eps as float, and through the element type where that is narrower."""
    return float(t.to(np.float32(eps))) if t.unit > FLOAT_UNIT else float(np.float32(eps))


@np.errstate(all="ignore")
def check_norm(
    result: np.ndarray, x: np.ndarray, weight: Array, bias: Array, rms: bool, type: str, eps: float = 1e-5
) -> None:
    """x: [rows, n] of values of the type. The one-pass variance loses what its two terms, which are larger, lose."""
    t = arithmetic.ALL[type]
    x = x.astype(np.float64)
    unit = min(t.unit, FLOAT_UNIT)
    mean = np.zeros((len(x), 1)) if rms else x.mean(1, keepdims=True)
    square = np.square(x).mean(1, keepdims=True)
    exact = square if rms else np.square(x - mean).mean(1, keepdims=True)
    # Of mean(x^2), and of mean(x)^2 <= mean(x^2).
    noise = (CHAIN + 4) * unit * square * (1 if rms else 2)
    root = np.sqrt(exact + eps_in_kernel(eps, t))
    least = np.sqrt(np.maximum(exact + eps_in_kernel(eps, t) - noise, 0))
    mean_noise = 0 if rms else (CHAIN + 2) * unit * np.abs(x).mean(1, keepdims=True)

    centred = x - mean
    value = centred / root
    bound = (np.abs(centred) + mean_noise + unit * np.abs(x)) * (1 / least - 1 / root)
    bound = bound + mean_noise / root
    bound = bound + 8 * unit * (np.abs(value) + np.abs(x) / root)
    if weight is not None:
        value, bound = value * weight, bound * np.abs(weight)
    if bias is not None:
        value = value + bias
    bound = bound + 4 * unit * np.abs(value)
    bound = bound + t.unit * (np.abs(value) + bound) + (2.0**-24 if t.name == "float16" else 0)
    assert np.all(np.abs(result - value) <= bound), np.max(np.abs(result - value) - bound)


@dataclass(frozen=True)
class Norm(Case):
    operator: str
    type: str
    rows: int
    n: int
    weight: bool = False
    bias: bool = False

    def tensors(self) -> list[torch.Tensor | None]:
        """Input, weight and bias, of the case's type."""
        random = np.random.default_rng(self.n)
        made = [random.standard_normal(s) * 2 + 0.5 for s in ((self.rows, self.n), self.n, self.n)]
        used = (True, self.weight, self.bias)
        return [on_xpu(x, self.type) if u else None for x, u in zip(made, used)]

    def run(self) -> dict[str, torch.Tensor]:
        x, *rest = self.tensors()
        return {"out": getattr(tolvane, self.operator)(x, (self.n,), *rest, 1e-5)}

    def check(self, results: Results, group: int = 32) -> None:
        assert results["out"].shape == (self.rows, self.n)
        check_norm(results["out"], *map(numbers, self.tensors()), "rms" in self.operator, self.type)


def cases(sizes: tuple[int, ...], rows: tuple[int, ...]) -> list[Norm]:
    """Both operators in all types; weight and bias come and go with the size."""
    return [
        Norm(operator, dtype, m, n, n % 2 == 0, n % 3 != 0)
        for operator in OPERATORS
        for dtype in TYPES
        for n in sizes
        for m in rows
    ]


CASES = cases((1, 2, 3, 16, 31, 33, 64, 100, 257, 512, 1000, 1030, 2048), (1, 3))
