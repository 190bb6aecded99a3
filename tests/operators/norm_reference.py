"""Root-mean-square and layer normalization from their definitions, in double, with the error that the steps allow."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from arithmetic import Arithmetic

FLOAT_UNIT = 2.0**-24
CHAIN = 64  # roundings between an element and a sum of squares, at most: 32 per work-item, then two trees


@dataclass(frozen=True)
class Norm:
    """The exact result, and the largest distance from it."""

    value: np.ndarray
    bound: np.ndarray


def eps_in_kernel(eps: float, t: Arithmetic) -> float:
    """eps as float, and through the element type where that is narrower."""
    return float(t.to(np.float32(eps))) if t.name in ("float16", "bfloat16") else float(np.float32(eps))


@np.errstate(all="ignore")
def norm(
    x: np.ndarray, weight: np.ndarray | None, bias: np.ndarray | None, eps: float, rms: bool, t: Arithmetic
) -> Norm:
    """x: [rows, n] of values of t. The one-pass variance loses what its two terms, which are larger, lose."""
    x = x.astype(np.float64)
    unit = t.unit if t.name == "float64" else FLOAT_UNIT
    n = x.shape[1]
    mean = np.zeros((len(x), 1)) if rms else x.mean(1, keepdims=True)
    square = np.square(x).mean(1, keepdims=True)
    exact = square if rms else np.square(x - mean).mean(1, keepdims=True)
    noise = (CHAIN + 4) * unit * square * (1 if rms else 2)  # of mean(x^2), and of mean(x)^2 <= mean(x^2)
    root = np.sqrt(exact + eps_in_kernel(eps, t))
    least = np.sqrt(np.maximum(exact + eps_in_kernel(eps, t) - noise, 0))
    mean_noise = 0 if rms else (CHAIN + 2) * unit * np.abs(x).mean(1, keepdims=True)

    centred = x - mean
    value = centred / root
    bound = (np.abs(centred) + mean_noise + unit * np.abs(x)) * (1 / least - 1 / root) + mean_noise / root
    bound = bound + 8 * unit * (np.abs(value) + np.abs(x) / root)
    if weight is not None:
        value, bound = value * weight, bound * np.abs(weight)
    if bias is not None:
        value = value + bias
    bound = bound + 4 * unit * np.abs(value)
    return Norm(value, bound + t.unit * (np.abs(value) + bound) + (2.0**-24 if t.name == "float16" else 0))
