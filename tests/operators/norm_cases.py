"""The calls of the norms that tests compare between processes, and a script that makes them: norm_cases.py OUT."""

from __future__ import annotations

import sys
from dataclasses import dataclass

import numpy as np
import torch

TYPES = ("float16", "float32", "float64", "bfloat16")
PLAIN = (1, 2, 3, 16, 31, 33, 64, 100, 257, 512, 1000, 1030, 2048)


@dataclass(frozen=True)
class Case:
    operator: str
    type: str
    rows: int
    n: int
    weight: bool
    bias: bool

    @property
    def name(self) -> str:
        return f"{self.operator}-{self.type}-{self.rows}-{self.n}-{self.weight:d}{self.bias:d}"

    @property
    def rms(self) -> bool:
        return self.operator == "fused_rms_norm"

    def tensors(self) -> tuple[torch.Tensor, torch.Tensor | None, torch.Tensor | None]:
        """Input, weight and bias on the CPU, of the case's type."""
        random = np.random.default_rng(self.n)
        shapes = [(self.rows, self.n), (self.n,), (self.n,)]
        made = [torch.from_numpy(random.standard_normal(s) * 2 + 0.5).to(getattr(torch, self.type)) for s in shapes]
        return made[0], made[1] if self.weight else None, made[2] if self.bias else None


def cases(sizes: tuple[int, ...] = PLAIN, rows: tuple[int, ...] = (1, 3)) -> list[Case]:
    """Both operators in all types; weight and bias come and go with the size."""
    return [
        Case(operator, dtype, m, n, n % 2 == 0, n % 3 != 0)
        for operator in ("fused_rms_norm", "fused_layer_norm")
        for dtype in TYPES
        for n in sizes
        for m in rows
    ]


def on_xpu(tensor: torch.Tensor | None) -> torch.Tensor | None:
    return None if tensor is None else tensor.to("xpu")


def run(case: Case, eps: float = 1e-5) -> torch.Tensor:
    import tolvane

    x, weight, bias = map(on_xpu, case.tensors())
    return getattr(tolvane, case.operator)(x, (case.n,), weight, bias, eps)


if __name__ == "__main__":
    np.savez(sys.argv[1], **{case.name: run(case).cpu().double().numpy() for case in cases()})
