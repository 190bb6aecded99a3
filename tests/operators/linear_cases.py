"""The calls of forward_new and dequant that are compared everywhere, and what they must give."""

from __future__ import annotations

import os
from dataclasses import dataclass
from functools import lru_cache
from unittest import mock

import numpy as np
import torch

import arithmetic
from matvec_reference import dense, dot_rows
from packed import FORMATS, Weight, random_weight

TYPES = ("float16", "float32", "float64", "bfloat16")
BATCH_LIMIT = {"q4_0": 20, "q4_1": 20, "nf4": 14}
DEQUANT = ("q4_0", "q8_0", "nf4", "fp8_e4m3", "fp4", "fp8_e5m2")


@lru_cache(maxsize=8)
def weight(form: str, state: int, output: int) -> Weight:
    return random_weight(FORMATS[form], output, state, 1)


@dataclass(frozen=True)
class Product:
    """One row, or few: the routes whose order of summation is stated."""

    format: str
    type: str
    rows: int
    state: int
    output: int

    @property
    def name(self) -> str:
        return "-".join(("forward_new", *map(str, vars(self).values())))

    @property
    def any_order(self) -> bool:
        """Sums in float and double may be made in another order by another target."""
        return self.type in ("float32", "float64")

    def activations(self) -> np.ndarray:
        """Random activations that every element type can hold."""
        values = np.random.default_rng(3).standard_normal((self.rows, self.state))
        return (np.round(values * 64) / 64).astype(np.float32)

    def arguments(self) -> list:
        w = weight(self.format, self.state, self.output)
        x = torch.from_numpy(self.activations()).to(getattr(torch, self.type)).to("xpu")
        return [x, torch.from_numpy(w.bytes).to("xpu"), w.format.qtype, 0]

    def run(self) -> dict[str, torch.Tensor]:
        import tolvane

        arguments = self.arguments()
        with mock.patch.dict(os.environ, QUARN_LLM_SYSARR_DISABLED="1"):
            out = tolvane.forward_new(*arguments)
        assert out.shape == (self.rows, self.output) and out.dtype == arguments[0].dtype
        return {"out": out}

    @np.errstate(over="ignore", invalid="ignore")
    def check(self, results: dict[str, np.ndarray], group: int = 32) -> None:
        """Half and bfloat16 to the bit, with every multiply and the add behind it contracted; float and double within
        the error of any order of summation. Without contraction each product rounds once more: both ways lie within
        gamma(n) * sum |x w| of the exact sum, n being the longest chain of roundings."""
        if group == 64 and self.format == "q4_0" and self.rows > 1:
            return  # the dense route there
        t = arithmetic.ALL[self.type]
        which = np.arange(self.output)
        if self.output > 200:
            which = np.unique([0, 1, self.output - 1, *range(7, self.output, 97)])
        w = weight(self.format, self.state, self.output).rows(which)
        elements, magnitudes = w.elements()
        for x, row in zip(self.activations(), results["out"][:, which]):
            n = 2 * 16 + self.state // group + 12
            bound = 2 * n * t.unit * (magnitudes @ np.abs(x.astype(np.float64)))
            if self.any_order:
                assert np.all(np.abs(row - elements @ x) <= bound)
            else:
                by_byte = self.rows > 1
                np.testing.assert_array_equal(row, dot_rows(x, w, t, group, by_byte=by_byte))
                separate = dot_rows(x, w, t, group, contract=False, by_byte=by_byte)
                assert np.all(np.abs(row - separate) <= bound)


@dataclass(frozen=True)
class Expansion:
    """dequant where it takes the format; else the dense route, times the identity, which adds nothing but zeros."""

    format: str
    type: str
    state: int
    output: int
    any_order = False

    @property
    def name(self) -> str:
        return "-".join(("dequant", *map(str, vars(self).values())))

    def run(self) -> dict[str, torch.Tensor]:
        import tolvane

        w, dtype = weight(self.format, self.state, self.output), getattr(torch, self.type)
        packed = torch.from_numpy(w.bytes).to("xpu")
        if self.format in DEQUANT:
            like = torch.empty(0, self.state, dtype=dtype, device="xpu")
            result = tolvane.dequant(like, packed, w.format.qtype)
        else:
            identity = torch.eye(self.state).to("xpu", dtype)
            result = tolvane.forward_new(identity, packed, w.format.qtype, 0).t()
        assert result.shape == (self.output, self.state) and result.dtype == dtype
        return {"out": result}

    def check(self, results: dict[str, np.ndarray], group: int = 32) -> None:
        expected = dense(weight(self.format, self.state, self.output), arithmetic.ALL[self.type])
        np.testing.assert_array_equal(results["out"], expected)


# One row, at the edges of tiles, groups and outputs; few rows; long rows and many, in one process only.
ONE = [(1, state, output) for state in (64, 576, 1088) for output in (1, 3, 9)]
FEW = [(rows, state, output) for rows in (2, 3, 14, 20) for state, output in ((64, 3), (1088, 8))]
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


CASES = products(ONE + FEW) + [
    Expansion(form, dtype, *shape) for form in FORMATS for shape in EXPANDED for dtype in TYPES
]
