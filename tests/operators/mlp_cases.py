"""The calls of mlp_forward_xpu that are compared everywhere, and what they must give."""

from __future__ import annotations

from dataclasses import dataclass
from functools import lru_cache

import numpy as np
import torch
import tolvane

from arithmetic import Arithmetic
from cases import TYPES, Results, SummingCase, on_xpu
from matvec_reference import dot_rows
from packed import FUSED, Weight, random_weight


def gated(gate: np.ndarray, up: np.ndarray, t: Arithmetic) -> np.ndarray:
    """silu(gate) * up, in float and then to T."""
    g = gate.astype(np.float32)
    return t.to(g * up.astype(np.float32) / (np.float32(1) + np.exp(-g))).astype(np.float64)


@lru_cache(maxsize=4)
def weights(form: str, state: int, output: int, kind: str) -> list[Weight]:
    return [random_weight(FUSED[form], output, state, seed, kind) for seed in (1, 2)]


def ulps(a: np.ndarray, b: np.ndarray, t: Arithmetic) -> np.ndarray:
    """Distance in units of the last place of T; 0 where both are the same infinity or both NaN."""
    same = (a == b) | (np.isnan(a) & np.isnan(b))
    distance = np.abs(a - b) / (np.maximum(np.abs(b), 2.0**-14) * 2 * t.unit)
    return np.where(same, 0, np.where(np.isfinite(distance), distance, np.inf))


@dataclass(frozen=True)
class Mlp(SummingCase):
    format: str
    type: str
    state: int
    output: int
    kind: str = "plain"

    def run(self) -> dict[str, torch.Tensor]:
        x = on_xpu(self.activations(1, self.state), self.type)
        pair = weights(self.format, self.state, self.output, self.kind)
        packed = [on_xpu(w.bytes) for w in pair]
        qtype = pair[0].format.qtype
        out = tolvane.mlp_forward_xpu(x, *packed, 1, self.state, self.output, qtype)
        assert out.shape == (1, self.output) and out.dtype == x.dtype
        return {"out": out}

    @np.errstate(over="ignore", invalid="ignore")
    def check(self, results: Results, group: int = 32) -> None:
        t, which = self.t, np.arange(self.output)
        if self.output > 200:  # the ends and some between
            chosen = np.random.default_rng(4).choice(self.output, 60, replace=False)
            which = np.unique([0, 1, self.output - 2, self.output - 1, *chosen])
        x = self.activations(1, self.state)[0].astype(np.float64)
        pair = [w.rows(which) for w in weights(self.format, self.state, self.output, self.kind)]
        actual = results["out"][0, which]

        if not self.any_order:
            # With every multiply and the add behind it contracted the sums are the same to the bit, and what is left
            # is the exponential: a few units of float, which at most moves the final rounding to the neighbour.
            distance = ulps(actual, gated(*(dot_rows(x, w, t, group) for w in pair), t), t)
            assert distance.max() <= 1.01
            assert np.mean(distance == 0) > 0.95 or np.sum(distance > 0) <= 2
        if self.kind in ("ends", "huge scales") and self.format == "fp8_e5m2":
            return  # infinities and NaNs have no error bound; above they were compared as they are

        # Within gamma(n) * sum |x w| of the exact sums, n being the longest chain of roundings, in any order.
        tile = pair[0].format.order.shape[1]
        n = 2 * tile + self.state // tile // group + 10
        (g, dg), (u, du) = ((w @ x, 2 * n * t.unit * (np.abs(w) @ np.abs(x))) for w in (w.elements()[0] for w in pair))
        silu = g / (1 + np.exp(-g))
        # |silu'| < 1.1; the last steps add a few roundings of float, or of T where that is coarser.
        tolerance = 1.1 * dg * np.abs(u) + (np.abs(silu) + 1.1 * dg) * du
        tolerance += 8 * max(t.unit, 2.0**-24) * np.abs(silu * u)
        finite = np.isfinite(tolerance) & np.isfinite(actual)
        assert finite.all() or self.kind == "huge scales"
        assert np.all(np.abs(actual - silu * u)[finite] <= tolerance[finite] + 2.0**-24)


CASES = [
    Mlp(form, dtype, *sizes, kind)
    for form in FUSED
    for sizes in ((64, 2), (64, 172), (192, 6), (576, 10))
    for kind in ("plain", "zero scales", "ends", "huge scales")
    for dtype in TYPES
]
# The sizes of real models, in one process only.
LARGE_SIZES = [(4096, 64), (4096, 11008), (11008, 4096)]
LARGE = [Mlp(form, dtype, *sizes) for form in FUSED for sizes in LARGE_SIZES for dtype in TYPES]
