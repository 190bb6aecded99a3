"""RWKV's recurrences in plain numpy, operation by operation. Arrays hold values of the Arithmetic's type."""

from __future__ import annotations

import numpy as np

from arithmetic import Arithmetic

Arrays = tuple[np.ndarray, ...]


def v4(t: Arithmetic, w: np.ndarray, u: np.ndarray, k: np.ndarray, v: np.ndarray, states: Arrays) -> Arrays:
    """The outputs [B, T, C] and the three states after the sequence."""
    num, den, top = (t.to(x) for x in states)
    w, u, k, v = (t.to(x) for x in (w, u, k, v))
    out = np.zeros_like(k)

    def sub(a: np.ndarray, b: np.ndarray) -> np.ndarray:
        return t.add(a, -b)

    def exp(x: np.ndarray) -> np.ndarray:
        return t.to(np.exp(np.float64(x)))

    for i in range(k.shape[1]):
        bonus = t.add(k[:, i], u)
        p = np.where(top > bonus, top, bonus)
        e1, e2 = exp(sub(top, p)), exp(sub(bonus, p))
        above = t.add(t.mul(e1, num), t.mul(e2, v[:, i]))
        out[:, i] = t.to(t.wide(above) / t.wide(t.add(t.mul(e1, den), e2)))
        decayed = t.add(top, w)
        p = np.where(decayed > k[:, i], decayed, k[:, i])
        e1, e2 = exp(sub(decayed, p)), exp(sub(k[:, i], p))
        num = t.add(t.mul(e1, num), t.mul(e2, v[:, i]))
        den = t.add(t.mul(e1, den), e2)
        top = p
    return out, num, den, top


def v5(w: np.ndarray, u: np.ndarray, r: np.ndarray, k: np.ndarray, v: np.ndarray, state: np.ndarray) -> Arrays:
    """The outputs [B, T, H, 64] and the state after the sequence, in double."""
    w, u, r, k, v, state = (x.astype(np.float64) for x in (w, u, r, k, v, state))
    out = np.zeros((k.shape[0], k.shape[2], k.shape[1], 64))
    for i in range(k.shape[2]):
        outer = k[:, :, i, :, None] * v[:, :, i, None, :]
        out[:, i] = np.einsum("bhi,bhij->bhj", r[:, :, i], u[..., None] * outer + state)
        state = outer + w[..., None] * state
    return out, state


def time_shift(t: Arithmetic, x: np.ndarray, shifted: np.ndarray, mix: np.ndarray) -> np.ndarray:
    """The mixes [M, B, T, C]: from the difference, in bfloat16 from both products. Every step rounds, but that in
    float the last sum contracts."""
    x, s, a = (t.to(value) for value in (x, shifted, mix[:, :, None]))
    if t.name == "bfloat16":
        return t.add(t.mul(x, a), t.mul(s, t.add(np.float32(1), -a)))
    difference = t.add(x, -s)
    return t.mad(a, difference, s) if t.name == "float32" else t.add(s, t.mul(a, difference))
