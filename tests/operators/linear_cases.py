"""The calls of forward_new and dequant that are compared everywhere, and what they must give."""

from __future__ import annotations

import os
from dataclasses import dataclass
from functools import lru_cache
from unittest import mock

import numpy as np
import torch
import tolvane
from numpy.testing import assert_array_equal

from cases import TYPES, Case, Results, SummingCase, on_xpu
from matvec_reference import dense, dot_rows
from packed import FORMATS, Weight, random_weight

BATCH_LIMIT = {"q4_0": 20, "q4_1": 20, "nf4": 14}
DEQUANT = ("q4_0", "q8_0", "nf4", "fp8_e4m3", "fp4", "fp8_e5m2")


@lru_cache(maxsize=8)
def weight(form: str, state: int, output: int) -> Weight:
    return random_weight(FORMATS[form], output, state, 1)


@dataclass(frozen=True)
class Product(SummingCase):
    """One row, or few: the routes whose order of summation is stated."""

    format: str
    type: str
    rows: int
    state: int
    output: int
    factor: float = 1

    def inputs(self) -> np.ndarray:
        return self.activations(self.rows, self.state) * np.float32(self.factor)

    def arguments(self) -> list:
        w = weight(self.format, self.state, self.output)
        x = on_xpu(self.inputs(), self.type)
        return [x, on_xpu(w.bytes), w.format.qtype, 0]

    def run(self) -> dict[str, torch.Tensor]:
        with mock.patch.dict(os.environ, QUARN_LLM_SYSARR_DISABLED="1"):
            out = tolvane.forward_new(*self.arguments())
        assert out.shape == (self.rows, self.output) and out.dtype == self.dtype
        return {"out": out}

    @np.errstate(over="ignore", invalid="ignore")
    def check(self, results: Results, group: int = 32) -> None:
        """Within the error of any order of summation, gamma(n) * sum |x w| with n the longest chain of roundings; half
        and bfloat16 to the bit, with every multiply and the add behind it contracted."""
        if group == 64 and self.format == "q4_0" and self.rows > 1:
            return  # the dense route there
        which = np.arange(self.output)
        if self.output > 200:
            which = np.unique([0, 1, self.output - 1, *range(7, self.output, 97)])
        w = weight(self.format, self.state, self.output).rows(which)
        elements, magnitudes = w.elements()
        n = 2 * 16 + self.state // group + 12
        for x, row in zip(self.inputs(), results["out"][:, which]):
            bound = 2 * n * self.t.unit * (magnitudes @ np.abs(x.astype(np.float64)))
            assert self.factor != 1 or np.all(np.abs(row - elements @ x) <= bound)
            if not self.any_order:
                assert_array_equal(row, dot_rows(x, w, self.t, group, self.rows > 1))


@dataclass(frozen=True)
class Expansion(Case):
    """dequant where it takes the format; else the dense route, times the identity, which adds nothing but zeros."""

    format: str
    type: str
    state: int
    output: int

    def run(self) -> dict[str, torch.Tensor]:
        w = weight(self.format, self.state, self.output)
        packed = on_xpu(w.bytes)
        if self.format in DEQUANT:
            like = torch.empty(0, self.state, dtype=self.dtype, device="xpu")
            result = tolvane.dequant(like, packed, w.format.qtype)
        else:
            identity = torch.eye(self.state).to("xpu", self.dtype)
            result = tolvane.forward_new(identity, packed, w.format.qtype, 0).t()
        assert result.shape == (self.output, self.state) and result.dtype == self.dtype
        return {"out": result}

    def check(self, results: Results, group: int = 32) -> None:
        expected = dense(weight(self.format, self.state, self.output), self.t)
        assert_array_equal(results["out"], expected)


# One row, at the edges of tiles, groups and outputs; few rows; long rows and many, in one process only.
ONE = [(1, state, output) for state in (64, 576, 1088) for output in (1, 3, 9)]
FEW = [(rows, *sizes) for rows in (2, 3, 14, 20) for sizes in ((64, 3), (1088, 8))]
LONG = [(1, 4160, 9), (1, 11008, 5), (1, 64, 4097)]
EXPANDED = [(64, 1), (64, 9), (576, 5), (1088, 3), (4160, 3)]


def products(shapes: list[tuple[int, int, int]]) -> list[Product]:
    """In every format and type, as far as the format takes so many rows."""
    return [
        Product(form, dtype, *shape)
        for form in FORMATS
        for shape in shapes
        for dtype in TYPES
        if shape[0] <= BATCH_LIMIT.get(form, 1)
    ]


# Activations whose sums are below the type's normal numbers, near its largest, and above them.
FACTORS = {"float16": (2.0**-20, 2.0**7, 2.0**12), "bfloat16": (2.0**-130, 2.0**102, 2.0**120)}

CASES = products(ONE + FEW)
CASES += [
    Product(form, t, rows, 576, 9, factor)
    for form, rows in (("q4_0", 1), ("q4_0", 15), ("q4_1", 15), ("q8_0", 1), ("nf4", 11))
    for t, factors in FACTORS.items()
    for factor in factors
]
CASES += [Expansion(form, t, *shape) for form in FORMATS for shape in EXPANDED for t in TYPES]
