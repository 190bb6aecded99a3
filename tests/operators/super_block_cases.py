"""The calls on formats of 256 elements that are compared everywhere, and what they must give."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import tolvane
import torch
from numpy.testing import assert_array_equal

from cases import TYPES, Case, Results, on_xpu
from super_block_reference import BLOCK_BYTES, QTYPE, decoded, one_row, random_records


@dataclass(frozen=True)
class SuperBlocks(Case):
    """One row. kind: plain; any scales: every half, NaN and infinities too; or what one of the activations is."""

    format: str
    type: str
    state: int
    output: int
    kind: str = "plain"

    @np.errstate(over="ignore")
    def row(self) -> np.ndarray:
        """[state] in float64: values of the type."""
        x = np.random.default_rng(self.state).standard_normal(self.state)
        if self.kind == "zero":
            x[:] = 0
        elif self.kind in ("nan", "inf", "1e30", "1e-44"):
            x[[37, 200]] = float(self.kind), -float(self.kind)
            x[64:96] = float(self.kind) if self.kind == "1e-44" else 0
        return self.t.to(x).astype(np.float64)

    def records(self) -> np.ndarray:
        return random_records(self.format, self.output, self.state, 2, self.kind == "any scales")

    def run(self) -> dict[str, torch.Tensor]:
        """Of "refused" where the device has no such kernel."""
        x = on_xpu(self.row()[None], self.type)
        try:
            out = tolvane.forward_new(x, on_xpu(self.records().ravel()), QTYPE[self.format], 0)
        except RuntimeError as error:
            assert f"this device has no function for qtype {QTYPE[self.format]};" in str(error)
            return {"refused": torch.ones(1)}
        assert out.shape == (1, self.output) and out.dtype == self.dtype
        return {"out": out}

    def check(self, results: Results, group: int = 32) -> None:
        x = self.row().astype(np.promote_types(self.t.wide, np.float32))
        expected = one_row(self.format, x, self.records(), self.t)
        assert_array_equal(results["out"][0], expected)


@dataclass(frozen=True)
class SuperBlockExpansion(Case):
    """dequant for iq2_xxs, dequantize_rows for q2_k; and of finite elements the dense route, times the identity."""

    format: str
    type: str
    rows: int
    state: int
    any_scales: bool = False

    def records(self) -> np.ndarray:
        return random_records(self.format, self.rows, self.state, 7, self.any_scales)

    def run(self) -> dict[str, torch.Tensor]:
        packed = on_xpu(self.records().ravel())
        identity = torch.eye(self.state, device="xpu", dtype=self.dtype)
        results = {}
        if self.format == "iq2_xxs":
            results["out"] = tolvane.dequant(identity, packed, 21)
        elif self.type == "float32":
            index = torch.arange(self.rows, device="xpu")[None]
            results["out"] = tolvane.dequantize_rows(index, packed, 23, self.state)[0]
        if not self.any_scales:
            try:
                dense = tolvane.forward_new(identity, packed, QTYPE[self.format], 0)
                results["dense"] = dense.t()
            except RuntimeError as error:
                assert f"no function for qtype {QTYPE[self.format]};" in str(error)
        assert all(x.dtype == self.dtype for x in results.values())
        return results

    @np.errstate(over="ignore", invalid="ignore")
    def check(self, results: Results, group: int = 32) -> None:
        expected = self.t.to(decoded(self.format, self.records()).reshape(self.rows, self.state))
        for result in results.values():
            assert_array_equal(result, expected)


SHAPES = [(256, 1), (256, 3), (512, 5), (768, 3), (1024, 37), (1280, 2), (4096, 9), (11008, 5)]
KINDS = ["any scales", "nan", "inf", "1e30", "1e-44", "zero"]
CASES: list[Case] = [
    SuperBlocks(form, dtype, *rest)
    for form in BLOCK_BYTES
    for dtype in TYPES
    for rest in [*SHAPES, *((1280, 7, kind) for kind in KINDS)]
]
for form in BLOCK_BYTES:
    for dtype in TYPES:
        sizes = ((1, 256), (5, 512), (3, 1280))
        CASES += [SuperBlockExpansion(form, dtype, *size) for size in sizes]
    CASES += [SuperBlockExpansion(form, "float32", 5, 512, True)]
CASES += [SuperBlockExpansion("iq2_xxs", t, 5, 512, True) for t in TYPES if t != "float32"]
