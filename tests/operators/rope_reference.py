"""Rotary position embedding from its definition, in double, with the error that the steps in float allow."""

from __future__ import annotations

import numpy as np

from arithmetic import Arithmetic

FLOAT_UNIT = 2.0**-24


def angles(positions: np.ndarray, size: int) -> tuple[np.ndarray, np.ndarray]:
    """positions [B, S] to angles and their largest errors, [B, 1, S, size / 2]. The rate 10000^(-2 / size) is a float,
    whose error the column multiplies; power, position and product round once each."""
    column = np.arange(size // 2)
    angle = positions[:, None, :, None] * 10000.0 ** (-2 * column / size)
    exponent = 26.6 / size * FLOAT_UNIT  # of the base's logarithm: the quotient rounds
    relative = column * (2 * exponent + 4 * FLOAT_UNIT) + 6 * FLOAT_UNIT
    return angle, angle * relative


def turned(
    x: np.ndarray, sine: np.ndarray, cosine: np.ndarray, turn_error: np.ndarray | float, t: Arithmetic
) -> tuple[np.ndarray, np.ndarray]:
    """x [..., size] by the angles' sines and cosines [..., size / 2], which are off by turn_error at most; and the
    bound of the result's error."""
    low, high = np.split(x.astype(np.float64), 2, axis=-1)
    value = np.concatenate([cosine * low - sine * high, cosine * high + sine * low], axis=-1)
    reach = np.abs(low) + np.abs(high)
    half = reach * (turn_error + 4 * FLOAT_UNIT)
    bound = np.concatenate([half, half], axis=-1) + max(t.unit, FLOAT_UNIT) * np.abs(value)
    return value, bound + (2.0**-24 if t.name == "float16" else 1e-40)


def by_position(
    x: np.ndarray, positions: np.ndarray, t: Arithmetic, backward: bool = False
) -> tuple[np.ndarray, np.ndarray]:
    """x [B, H, S, size] turned by its tokens' positions [B, S]: value and bound."""
    angle, error = angles(positions, x.shape[-1])
    sine = -np.sin(angle) if backward else np.sin(angle)
    return turned(x, sine, np.cos(angle), error + 4 * FLOAT_UNIT, t)
