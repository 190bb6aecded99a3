"""The calls of forward_new and dequant that tests make, and a script that makes them: linear_cases.py OUT [SELECTION]."""

from __future__ import annotations

import sys
from dataclasses import dataclass
from functools import lru_cache

import numpy as np

from packed import FORMATS, Weight, random_weight

TYPES = ("float16", "float32", "float64", "bfloat16")
BATCH_LIMIT = {"q4_0": 20, "q4_1": 20, "nf4": 14}


@dataclass(frozen=True)
class Case:
    format: str
    type: str
    rows: int
    state: int
    output: int

    @property
    def name(self) -> str:
        return f"{self.format}-{self.type}-{self.rows}-{self.state}-{self.output}"


def cases(selection: str) -> list[Case]:
    """one: one row, at the edges of tiles, groups and outputs; few: the batch path; large: long rows, many rows."""
    if selection == "one":
        shapes = [(1, state, output) for state in (64, 576, 1088) for output in (1, 3, 9)]
        return [Case(form, dtype, *shape) for form in FORMATS for dtype in TYPES for shape in shapes]
    if selection == "few":
        shapes = [(rows, state, output) for rows in (2, 3, 14, 20) for state, output in ((64, 3), (1088, 8))]
        return [
            Case(form, dtype, *shape)
            for form, limit in BATCH_LIMIT.items()
            for dtype in TYPES
            for shape in shapes
            if shape[0] <= limit
        ]
    shapes = [(1, 4160, 9), (1, 11008, 5), (1, 64, 4097)]
    return [Case(form, dtype, *shape) for form in FORMATS for dtype in TYPES for shape in shapes]


@lru_cache(maxsize=8)
def weight(form: str, state: int, output: int) -> Weight:
    return random_weight(FORMATS[form], output, state, 1)


def activations(case: Case) -> np.ndarray:
    """Random activations that every element type can hold."""
    values = np.random.default_rng(3).standard_normal((case.rows, case.state))
    return (np.round(values * 64) / 64).astype(np.float32)


def tensors(case: Case):
    import torch

    w = weight(case.format, case.state, case.output)
    x = torch.from_numpy(activations(case)).to(getattr(torch, case.type)).to("xpu")
    return x, torch.from_numpy(w.bytes).to("xpu"), w.format.qtype


def forward(case: Case) -> np.ndarray:
    import tolvane

    x, packed, qtype = tensors(case)
    out = tolvane.forward_new(x, packed, qtype, 0)
    assert out.shape == (case.rows, case.output) and out.dtype == x.dtype and out.device.type == "xpu"
    return out.cpu().double().numpy()


if __name__ == "__main__":
    np.savez(sys.argv[1], **{case.name: forward(case) for selection in sys.argv[2:] for case in cases(selection)})
