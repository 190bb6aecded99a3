"""Calls of forward_new on one row of the formats of 256 elements, and a script for them: super_block_cases.py OUT."""

from __future__ import annotations

import sys
from dataclasses import dataclass

import numpy as np

from super_block_reference import BLOCK_BYTES, QTYPE


@dataclass(frozen=True)
class Case:
    """kind: plain; any scales: every half, NaN and infinities too; or what one of the activations is."""

    format: str
    type: str
    state: int
    output: int
    kind: str = "plain"

    @property
    def name(self) -> str:
        return f"{self.format}-{self.type}-{self.state}-{self.output}-{self.kind}"


def cases() -> list[Case]:
    shapes = [(256, 1), (256, 3), (512, 5), (768, 3), (1024, 37), (1280, 2), (4096, 9), (11008, 5)]
    kinds = ["any scales", "nan", "inf", "1e30", "1e-44", "zero"]
    types = ("float16", "float32", "float64", "bfloat16")
    return [
        Case(form, dtype, *rest)
        for form in BLOCK_BYTES
        for dtype in types
        for rest in [*shapes, *((1280, 7, kind) for kind in kinds)]
    ]


def random_records(form: str, rows: int, state: int, seed: int, any_scales: bool = False) -> np.ndarray:
    """Random bytes [rows, blocks, bytes of a block]; scales of 0.02 or so, of either sign, or any at all."""
    random = np.random.default_rng(seed)
    records = random.integers(0, 256, (rows, state // 256, BLOCK_BYTES[form]), dtype=np.uint8)
    if not any_scales:
        for at in (80, 82) if form == "q2_k" else (0,):
            d = (random.standard_normal(records.shape[:2]) * 0.02).astype(np.float16)
            records[..., at : at + 2] = d[..., None].view(np.uint8)
    return records


def activations(case: Case) -> np.ndarray:
    """[state] in float64: values of the type where the type is one of 16 bits."""
    x = np.random.default_rng(case.state).standard_normal(case.state)
    if case.kind == "zero":
        x[:] = 0
    elif case.kind in ("nan", "inf", "1e30", "1e-44"):
        x[[37, 200]] = float(case.kind), -float(case.kind)
        x[64:96] = float(case.kind) if case.kind == "1e-44" else 0
    if case.type == "float16":
        with np.errstate(over="ignore"):
            return x.astype(np.float16).astype(np.float64)
    if case.type == "bfloat16":
        return (np.ascontiguousarray(x, np.float32).view(np.uint32) & 0xFFFF0000).view(np.float32).astype(np.float64)
    return x


def records_of(case: Case) -> np.ndarray:
    return random_records(case.format, case.output, case.state, 2, case.kind == "any scales")


def forward(case: Case) -> np.ndarray:
    import torch
    import tolvane

    x = torch.from_numpy(activations(case)[None]).to(getattr(torch, case.type)).to("xpu")
    packed = torch.from_numpy(records_of(case).reshape(-1)).to("xpu")
    out = tolvane.forward_new(x, packed, QTYPE[case.format], 0)
    assert out.shape == (1, case.output) and out.dtype == x.dtype
    return out.cpu().double().numpy()[0]


if __name__ == "__main__":
    np.savez(sys.argv[1], **{case.name: forward(case) for case in cases()})
