"""The calls that the matrix engine takes, on devices that have one, and what they must give."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import torch
import tolvane

from arithmetic import BFLOAT16, HALF
from cases import Case, Results, on_xpu
from packed import FORMATS, Weight, random_weight

FORMS = ("q4_0", "q8_0", "fp8_e4m3", "fp8_e5m2")
TYPES = ("float16", "float32", "bfloat16")
SPLITS = 8


@dataclass(frozen=True)
class Engine(Case):
    """Kinds are those of random_weight, and "NaN": a byte in every third row that stands for none in one format."""

    format: str
    type: str
    rows: int
    state: int
    output: int
    kind: str = "plain"

    def weight(self) -> Weight:
        kind = "plain" if self.kind == "NaN" else self.kind
        weight = random_weight(FORMATS[self.format], self.output, self.state, 1, kind)
        if self.kind == "NaN":
            weight.values[::3, -1, 5] = 0x7E
        return weight

    def run(self) -> dict[str, torch.Tensor]:
        x = on_xpu(self.activations(self.rows, self.state), self.type)
        weight = on_xpu(self.weight().bytes)
        out = tolvane.forward_new(x, weight, FORMATS[self.format].qtype, 0)
        assert out.shape == (self.rows, self.output) and out.dtype == self.dtype
        return {"out": out}

    @np.errstate(over="ignore", invalid="ignore")
    def check(self, results: Results, group: int = 0) -> None:
        """To the bit where the sum inside a dpas is exact in any order, which holds for integers times multiples; else within the
        error of 64 float additions in any order, and two roundings of each partial sum and each total."""
        t = BFLOAT16 if self.type == "bfloat16" else HALF
        weight, blocks = self.weight(), self.state // 64
        x = t.to(self.activations(self.rows, self.state)).astype(np.float64).reshape(self.rows, blocks, 4, 16)
        w = weight.decoded().reshape(self.output, blocks, 4, 16)
        d = weight.scales[:, :, 0].astype(np.float64)
        per_split = -(-blocks // SPLITS)
        partial = np.zeros((SPLITS, self.rows, self.output), np.float32)
        magnitude = np.zeros_like(partial, np.float64)
        for block in range(blocks):
            sums = np.zeros((self.rows, self.output), np.float32)
            for tile in range(4):
                sums = np.float32(sums + x[:, block, tile] @ w[:, block, tile].T)
            split = block // per_split
            partial[split] = np.float32(np.float64(sums) * d[:, block] + partial[split])
            sizes = np.abs(x[:, block].reshape(self.rows, 64)) @ np.abs(w[:, block].reshape(self.output, 64)).T
            magnitude[split] += sizes * np.abs(d[:, block])
        expected = t.total(partial)  # of the splits
        if self.format in ("q4_0", "q8_0"):
            np.testing.assert_array_equal(results["out"], expected)
            return
        totals = np.cumsum(np.abs(partial), axis=0, dtype=np.float64)
        bound = 2.0**-24 * (64 + blocks) * magnitude + 2 * t.unit * (np.abs(partial) + totals)
        off = np.abs(results["out"] - expected)
        finite = np.isfinite(expected)
        assert np.all(off[finite] <= bound.sum(axis=0)[finite] + SPLITS * 2.0**-24)
        np.testing.assert_array_equal(results["out"][~finite], expected[~finite])


# Both sides of full row tiles, every last tile; fewer blocks than threads, uneven shares.
ROWS_AND_STATES = [*((rows, 64) for rows in (2, 3, 4, 5, 9, 16)), (6, 704), (15, 704), (7, 4096)]
CASES = [Engine(f, t, *shape, 32) for f in FORMS for t in TYPES for shape in ROWS_AND_STATES]
CASES += [Engine(f, t, 8, 704, 16, "huge scales") for f in FORMS[:3] for t in TYPES]
CASES += [Engine(f, t, 10, 704, 16, "NaN") for f in FORMS for t in TYPES]
CASES += [Engine(f, t, 12, 11008, 16) for f in FORMS for t in TYPES]
# More rows than the widest tiles take.
MANY_ROWS = [Engine(f, t, rows, 704, 48) for f in FORMS for t in TYPES for rows in (17, 22, 64)]
