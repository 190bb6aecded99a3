"""The calls of mlp_forward_xpu that are compared everywhere, and what they must give."""

from __future__ import annotations

from dataclasses import dataclass
from functools import lru_cache

import numpy as np
import torch

import arithmetic
from linear_cases import TYPES
from matvec_reference import dot_rows
from packed import FUSED, Weight, random_weight


def gated(gate: np.ndarray, up: np.ndarray, t: arithmetic.Arithmetic) -> np.ndarray:
    """silu(gate) * up: in float and then to T; for double the sigmoid's quotient in float, the product in double."""
    g = gate.astype(np.float32)
    divisor = np.float32(1) + np.exp(-g)
    if t.name == "float64":
        return up * (g / divisor).astype(np.float64)
    return t.to(g * up.astype(np.float32) / divisor)


@lru_cache(maxsize=4)
def weights(form: str, state: int, output: int, kind: str) -> tuple[Weight, Weight]:
    return tuple(random_weight(FUSED[form], output, state, seed, kind) for seed in (1, 2))


def ulps(a: np.ndarray, b: np.ndarray, t: arithmetic.Arithmetic) -> np.ndarray:
    """Distance in units of the last place of T; 0 where both are the same infinity or both NaN."""
    same = (a == b) | (np.isnan(a) & np.isnan(b))
    distance = np.abs(a - b) / (np.maximum(np.abs(b), 2.0**-14) * 2 * t.unit)
    return np.where(same, 0, np.where(np.isfinite(distance), distance, np.inf))


@dataclass(frozen=True)
class Case:
    format: str
    type: str
    state: int
    output: int
    kind: str = "plain"

    @property
    def name(self) -> str:
        return "-".join(("mlp", *map(str, vars(self).values())))

    @property
    def any_order(self) -> bool:
        return self.type in ("float32", "float64")

    def activations(self) -> np.ndarray:
        """Random activations that every element type can hold."""
        values = np.random.default_rng(3).standard_normal(self.state)
        return (np.round(values * 64) / 64).astype(np.float32)

    def run(self) -> dict[str, torch.Tensor]:
        import tolvane

        x = torch.from_numpy(self.activations())[None].to("xpu", getattr(torch, self.type))
        pair = weights(self.format, self.state, self.output, self.kind)
        packed = [torch.from_numpy(w.bytes).to("xpu") for w in pair]
        out = tolvane.mlp_forward_xpu(x, *packed, 1, self.state, self.output, pair[0].format.qtype)
        assert out.shape == (1, self.output) and out.dtype == x.dtype
        return {"out": out}

    @np.errstate(over="ignore", invalid="ignore")
    def check(self, results: dict[str, np.ndarray], group: int = 32) -> None:
        t = arithmetic.ALL[self.type]
        which = np.arange(self.output)
        if self.output > 200:  # the ends and some between
            chosen = np.random.default_rng(4).choice(self.output, 60, replace=False)
            which = np.unique([0, 1, self.output - 2, self.output - 1, *chosen])
        x = self.activations().astype(np.float64)
        pair = [w.rows(which) for w in weights(self.format, self.state, self.output, self.kind)]
        actual = results["out"][0, which]

        if not self.any_order:
            # With every multiply and the add behind it contracted the sums are the same to the bit, and what is left
            # is the exponential: a few units of float, which at most moves the final rounding to the neighbour.
            expected = gated(*(dot_rows(x, w, t, group) for w in pair), t).astype(np.float64)
            distance = ulps(actual, expected, t)
            assert distance.max() <= 1.01
            assert np.mean(distance == 0) > 0.95 or np.sum(distance > 0) <= 2
        if self.kind in ("ends", "huge scales") and self.format == "fp8_e5m2":
            return  # infinities and NaNs have no error bound; above they were compared as they are

        # Without contraction each product rounds once more. Both ways lie within gamma(n) * sum |x w| of the exact
        # sum, n being the longest chain of roundings, so that they differ by twice that at most; float and double are
        # compared with the exact sum, as they may be summed in any order.
        tile = pair[0].format.order.shape[1]
        n = 2 * tile + self.state // tile // group + 10
        dg, du = (2 * n * t.unit * (np.abs(w.elements()[0]) @ np.abs(x)) for w in pair)
        if self.any_order:
            g, u = (w.elements()[0] @ x for w in pair)
        else:
            g, u = (dot_rows(x, w, t, group, contract=False).astype(np.float64) for w in pair)
        silu = g / (1 + np.exp(-g))
        # |silu'| < 1.1; the last steps add a few roundings of float, or of T where that is coarser.
        tolerance = 1.1 * dg * np.abs(u) + (np.abs(silu) + 1.1 * dg) * du
        tolerance += 8 * max(t.unit, 2.0**-24) * np.abs(silu * u)
        finite = np.isfinite(tolerance) & np.isfinite(actual)
        assert finite.all() or self.kind == "huge scales"
        assert np.all(np.abs(actual - silu * u)[finite] <= tolerance[finite] + 2.0**-24)


CASES = [
    Case(form, dtype, state, output, kind)
    for form in FUSED
    for state, output in ((64, 2), (64, 172), (192, 6), (576, 10))
    for kind in ("plain", "zero scales", "ends", "huge scales")
    for dtype in TYPES
]
# The sizes of real models, in one process only.
LARGE = [
    Case(form, dtype, *sizes)
    for form in FUSED
    for sizes in ((4096, 64), (4096, 11008), (11008, 4096))
    for dtype in TYPES
]
