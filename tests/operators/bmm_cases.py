"""The calls of bmm that are compared everywhere: where a gang of work-items fits into a row, and where it does not."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import torch
import tolvane

from cases import Case, Results, on_xpu


@dataclass(frozen=True)
class Bmm(Case):
    shape: tuple[int, int, int, int]  # batch, M, N, P

    def factors(self) -> list[np.ndarray]:
        batch, m, n, p = self.shape
        random = np.random.default_rng(m + n)
        shapes = ((batch, m, n), (batch, n, p))
        return [random.standard_normal(shape).astype(np.float32) for shape in shapes]

    def run(self) -> dict[str, torch.Tensor]:
        batch, m, _, p = self.shape
        c = torch.full((batch, m, p), torch.nan, device="xpu")
        out = tolvane.bmm(*(on_xpu(x) for x in self.factors()), c)
        assert out.data_ptr() == c.data_ptr() and out.shape == c.shape
        return {"out": c}

    def check(self, results: Results, group: int = 32) -> None:
        a, b = (x.astype(np.float64) for x in self.factors())
        bound = self.shape[2] * 2.0**-23 * (np.abs(a) @ np.abs(b)) + 1e-30
        assert np.all(np.abs(results["out"] - a @ b) <= bound)


SHAPES = [(1, 1, 1, 1), (2, 3, 5, 1), (3, 1, 7, 33), (2, 4, 3, 32), (2, 5, 64, 31)]
SHAPES += [(1, 2, 300, 100), (4, 64, 32, 64), (2, 3, 0, 4), (0, 3, 4, 5), (2, 0, 4, 5), (2, 3, 4, 0)]
CASES = [Bmm(shape) for shape in SHAPES]
