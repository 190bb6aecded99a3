"""The RWKV calls that are compared everywhere, and the recurrences in plain numpy, operation by operation."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import torch
import tolvane
from numpy.testing import assert_allclose, assert_array_equal

import arithmetic
from cases import Case, Results, on_xpu

# Types of the activations and of the parameters.
PAIRS = [("float32", "bfloat16")] + [(t, t) for t in ("float32", "bfloat16", "float16")]
Arrays = tuple[np.ndarray, ...]


def numbers(seed: int, *shape: int, scale: float = 1.0) -> np.ndarray:
    """Values that every element type can hold."""
    values = np.random.default_rng(seed).standard_normal(shape) * scale
    return (np.round(values * 32) / 32).astype(np.float32)


@dataclass(frozen=True)
class Sequence(Case):
    type: str
    parameters: str
    sizes: tuple[int, ...]


class Version4(Sequence):
    """Sizes B, T, C."""

    def data(self) -> list[np.ndarray]:
        """time_decay, time_first, key, value, num, den, max; some running exponents are far below."""
        batch, tokens, channels = self.sizes
        w = -np.abs(numbers(1, channels)) - np.float32(1 / 32)
        k, v = (numbers(seed, batch, tokens, channels, scale=2) for seed in (3, 4))
        num, den, top = (numbers(seed, batch, channels) for seed in (5, 6, 7))
        top[:, ::3] = -4096
        return [w, numbers(2, channels), k, v, num, np.abs(den), top]

    def tensors(self) -> list[torch.Tensor]:
        types = [self.parameters] * 2 + [self.type] * 5
        return [on_xpu(x, dtype) for x, dtype in zip(self.data(), types)]

    def run(self) -> dict[str, torch.Tensor]:
        tensors = self.tensors()
        out = tolvane.rwkv_linear_attention_v4(*tensors)
        return dict(zip(("out", "num", "den", "max"), (out, *tensors[4:])))

    @np.errstate(under="ignore")
    def expected(self) -> Arrays:
        """The outputs [B, T, C] and the three states after the sequence."""
        t = self.t
        w, u, *rest = self.data()
        w, u = (arithmetic.ALL[self.parameters].to(x) for x in (w, u))
        w, u, k, v, num, den, top = (t.to(x) for x in (w, u, *rest))
        out = np.zeros_like(k)

        def exp_of_difference(a: np.ndarray, b: np.ndarray) -> np.ndarray:
            return t.to(np.exp(np.float64(t.add(a, -b))))

        for i in range(k.shape[1]):
            bonus = t.add(k[:, i], u)
            p = np.where(top > bonus, top, bonus)
            e1, e2 = exp_of_difference(top, p), exp_of_difference(bonus, p)
            above = t.add(t.mul(e1, num), t.mul(e2, v[:, i]))
            out[:, i] = t.to(t.wide(above) / t.wide(t.add(t.mul(e1, den), e2)))
            decayed = t.add(top, w)
            p = np.where(decayed > k[:, i], decayed, k[:, i])
            e1, e2 = exp_of_difference(decayed, p), exp_of_difference(k[:, i], p)
            num = t.add(t.mul(e1, num), t.mul(e2, v[:, i]))
            den = t.add(t.mul(e1, den), e2)
            top = p
        return out, num, den, top

    def check(self, results: Results, group: int = 32) -> None:
        t = self.t
        for (part, actual), x in zip(results.items(), self.expected(), strict=True):
            assert actual.shape == x.shape
            if part == "max" or self.sizes[1] == 0:
                assert_array_equal(actual, x)
                continue
            # An exponential may round to the neighbour, and steps carry that on.
            tolerance = (16 if t.name != "float32" else 64) * t.unit
            assert_allclose(actual, x.astype(np.float64), tolerance, 4 * tolerance)
            assert t.name == "float32" or np.mean(actual == x) > 0.9


class Version5(Sequence):
    """Sizes B, H, T. In float."""

    def data(self) -> list[np.ndarray]:
        """time_decay, time_first, receptance, key, value, state."""
        batch, heads, tokens = self.sizes
        w = np.exp(-np.exp(numbers(1, heads, 64))).astype(np.float32)
        rkv = [numbers(seed, batch, heads, tokens, 64) for seed in (3, 4, 5)]
        return [w, numbers(2, heads, 64), *rkv, numbers(6, batch, heads, 64, 64)]

    def tensors(self) -> list[torch.Tensor]:
        return [on_xpu(x, "float32") for x in self.data()]

    def run(self) -> dict[str, torch.Tensor]:
        tensors = self.tensors()
        return {"out": tolvane.rwkv_linear_attention_v5(*tensors), "state": tensors[-1]}

    def check(self, results: Results, group: int = 32) -> None:
        w, u, r, k, v, state = (x.astype(np.float64) for x in self.data())
        out = np.zeros((k.shape[0], k.shape[2], k.shape[1], 64))
        for i in range(k.shape[2]):
            outer = k[:, :, i, :, None] * v[:, :, i, None, :]
            out[:, i] = np.einsum("bhi,bhij->bhj", r[:, :, i], u[..., None] * outer + state)
            state = outer + w[..., None] * state
        for part, x in (("out", out), ("state", state)):
            bound = np.maximum(np.abs(x).max(initial=1), 1) * 64 * 2.0**-22
            assert_allclose(results[part], x, rtol=0, atol=bound)


class TimeShift(Sequence):
    """Sizes M, B, T, C."""

    def data(self) -> list[np.ndarray]:
        """hidden, shifted, mix, which begins with 0 and 1."""
        random, (mixes, *sizes) = np.random.default_rng(3), self.sizes
        mix = random.random((mixes, 1, sizes[2]), np.float32)
        mix[:2] = np.arange(min(mixes, 2))[:, None, None]
        return [*random.standard_normal((2, *sizes), np.float32), mix]

    def run(self) -> dict[str, torch.Tensor]:
        types = (self.type, self.type, self.parameters)
        return {"out": tolvane.rwkv_time_shift(*map(on_xpu, self.data(), types))}

    def check(self, results: Results, group: int = 32) -> None:
        """The mixes [M, B, T, C]: from the difference, in bfloat16 from both products. Every step rounds, but that in
        float the last sum contracts."""
        t = self.t
        hidden, shifted, mix = self.data()
        mix = arithmetic.ALL[self.parameters].to(mix[:, :, None])
        x, s, a = (t.to(part) for part in (hidden, shifted, mix))
        if t.name == "bfloat16":
            expected = t.add(t.mul(x, a), t.mul(s, t.add(np.float32(1), -a)))
        elif t.name == "float16":
            expected = t.add(s, t.mul(a, t.add(x, -s)))
        else:
            expected = t.mad(a, t.add(x, -s), s)
        assert_array_equal(results["out"], expected)


CASES = [Version5(*PAIRS[1], sizes) for sizes in ((1, 2, 0), (2, 1, 1), (1, 3, 64))]
for pair in PAIRS:
    CASES += [Version4(*pair, sizes) for sizes in ((2, 0, 32), (1, 1, 32), (2, 64, 96))]
    shifts = ((0, 1, 2, 64), (1, 2, 1, 64), (5, 2, 3, 192), (3, 1, 0, 64))
    CASES += [TimeShift(*pair, sizes) for sizes in shifts]
