"""The calls of mlp_forward_xpu that tests make, and a script that makes them: mlp_cases.py OUT [SELECTION]."""

from __future__ import annotations

import sys
from dataclasses import dataclass
from functools import lru_cache

import numpy as np

from packed import FUSED, Weight, random_weight

TYPES = ("float16", "float32", "float64", "bfloat16")


@dataclass(frozen=True)
class Case:
    format: str
    type: str
    state: int
    output: int
    kind: str = "plain"

    @property
    def name(self) -> str:
        return f"{self.format}-{self.type}-{self.state}-{self.output}-{self.kind}"


SMALL = [(64, 2), (64, 172), (192, 6), (576, 10)]
LARGE = [(4096, 64), (4096, 11008), (11008, 4096)]
KINDS = ["zero scales", "ends", "huge scales"]


def cases(selection: str) -> list[Case]:
    """small: every instance, on all small sizes and kinds; large: the sizes of real models."""
    sizes = {"small": SMALL, "large": LARGE}[selection]
    kinds = {"small": ["plain", *KINDS], "large": ["plain"]}[selection]
    return [
        Case(form, dtype, state, output, kind)
        for form in ("q4_0", "fp8_e5m2")
        for dtype in TYPES
        for state, output in sizes
        for kind in kinds
    ]


@lru_cache(maxsize=4)
def weights(form: str, state: int, output: int, kind: str) -> tuple[Weight, Weight]:
    return random_weight(FUSED[form], output, state, 1, kind), random_weight(FUSED[form], output, state, 2, kind)


def activations(case: Case) -> np.ndarray:
    """Random activations that every element type can hold."""
    values = np.random.default_rng(3).standard_normal(case.state)
    return (np.round(values * 64) / 64).astype(np.float32)


def run(case: Case) -> np.ndarray:
    import torch
    import tolvane

    gate, up = weights(case.format, case.state, case.output, case.kind)
    x = torch.from_numpy(activations(case)).reshape(1, -1).to(getattr(torch, case.type))
    gate_bytes, up_bytes = (torch.from_numpy(w.bytes).to("xpu") for w in (gate, up))
    out = tolvane.mlp_forward_xpu(x.to("xpu"), gate_bytes, up_bytes, 1, case.state, case.output, gate.format.qtype)
    assert out.shape == (1, case.output) and out.dtype == x.dtype and out.device.type == "xpu"
    return out.cpu().double().numpy()[0]


if __name__ == "__main__":
    np.savez(sys.argv[1], **{case.name: run(case) for case in cases(*sys.argv[2:3] or ["small"])})
